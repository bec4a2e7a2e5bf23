/* A camera plug-in to start from. It is complete: build this one file as a loadable library
 * and put the result into the folder that a host loads its plug-ins from.
 *
 *     cc  -shared -fPIC -I<include folder> template.c -o template.so
 *     cl  /LD /I<include folder> template.c                             (template.dll)
 *
 * It compiles as C99 and as C++ and needs nothing but the C library. Its camera makes a grey
 * ramp of 640 x 480 pixels whenever the host triggers it; a real one would start a thread in
 * "start" that reports frames until "stop" has ended it. */

#include <qor/plugins/sio_plugin.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { WIDTH = 640, HEIGHT = 480, FRAME_BYTES = WIDTH * HEIGHT };

/* Statuses that the camera gives; 0 is success, the others are this plug-in's own. */
enum { STATUS_OK = 0, STATUS_WRONG_STATE = 1, STATUS_UNKNOWN = 2, STATUS_NO_MEMORY = 4 };

typedef enum CameraState { CLOSED, OPEN, PREPARED, RUNNING } CameraState;

/* One camera. The library gives the address of this record back as `context`. */
typedef struct Camera {
	struct Camera* next;
	CameraState state;
	int exposure;
	unsigned char* frame; /* the only frame buffer */
	uint64_t frameNumber;
	void* object;         /* by which the library knows its object: an identity, not an address; */
	qorSIO_Func callback; /* and the function that takes its events */
} Camera;

static Camera* allCameras; /* never freed: the library may call them until the process ends */

/* C has no conversion between pointers to functions and to data, although both systems give
 * them the same representation; copying the bytes is the clean way over. */
static void* dataPointer(qorSIO_Func function) {
	void* pointer;
	memcpy(&pointer, &function, sizeof pointer);
	return pointer;
}

static qorSIO_Func functionPointer(void* pointer) {
	qorSIO_Func function;
	memcpy(&function, &pointer, sizeof function);
	return function;
}

/* Events may be reported on any thread. The library may send commands from within the call,
 * so no lock of the plug-in may be held around it. */
static void report(Camera* camera, unsigned long code, void* p1) {
	if (camera->callback) camera->callback(camera->object, code, 0, 0, p1, NULL);
}

static int trigger(Camera* camera) {
	qorSIO_VCAP_FRAME_INFO info;
	int i;
	if (camera->state != RUNNING) return STATUS_WRONG_STATE;
	for (i = 0; i < FRAME_BYTES; ++i) camera->frame[i] = (unsigned char)(i + (int)(camera->frameNumber % 256));
	memset(&info, 0, sizeof info);
	info.mFrame = (uint64_t)(uintptr_t)camera->frame;
	info.mByteSize = FRAME_BYTES;
	info.mFrameNumber = camera->frameNumber++;
	info.mWidth = WIDTH;
	info.mHeight = HEIGHT;
	info.mStride = WIDTH;
	info.mPixelFormat = qorSIO_PIXEL_MONO8;
	report(camera, qorSIO_EVENT_DATA, &info);
	return STATUS_OK;
}

/* The operations: "open," "allocbuffers,4" "start," and so on. */
static int operate(Camera* camera, const char* operation) {
	if (strcmp(operation, QOR_SIO_OP_OPEN) == 0) {
		if (camera->state != CLOSED) return STATUS_WRONG_STATE;
		camera->state = OPEN;
		return STATUS_OK;
	}
	if (camera->state == CLOSED) return STATUS_WRONG_STATE;
	if (strcmp(operation, QOR_SIO_OP_ALLOC_BUFFERS) == 0) {
		if (!camera->frame) camera->frame = (unsigned char*)malloc(FRAME_BYTES);
		return camera->frame ? STATUS_OK : STATUS_NO_MEMORY;
	}
	if (strcmp(operation, QOR_SIO_OP_PREPARE) == 0) {
		if (camera->state != OPEN || !camera->frame) return STATUS_WRONG_STATE;
		camera->frameNumber = 0;
		camera->state = PREPARED;
		return STATUS_OK;
	}
	if (strcmp(operation, QOR_SIO_OP_START) == 0) {
		if (camera->state != PREPARED) return STATUS_WRONG_STATE;
		camera->state = RUNNING;
		return STATUS_OK;
	}
	if (strcmp(operation, QOR_SIO_OP_STOP) == 0) {
		camera->state = OPEN; /* here a real camera waits for the end of its thread */
		return STATUS_OK;
	}
	if (camera->state != OPEN) return STATUS_WRONG_STATE;
	if (strcmp(operation, QOR_SIO_OP_RELEASE_BUFFERS) == 0 || strcmp(operation, QOR_SIO_OP_CLOSE) == 0) {
		free(camera->frame);
		camera->frame = NULL;
		if (operation[0] == 'c') camera->state = CLOSED;
		return STATUS_OK;
	}
	return STATUS_UNKNOWN;
}

/* "set,<key>,<value>": the answer is a status. */
static int set(Camera* camera, const char* key, const char* value) {
	if (strcmp(key, QOR_SIO_KEY_EXPOSURE) == 0) {
		camera->exposure = atoi(value);
		return STATUS_OK;
	}
	if (strcmp(key, QOR_SIO_KEY_FEATURE_COMMAND "TriggerSoftware") == 0) return trigger(camera);
	return STATUS_UNKNOWN;
}

/* "get,<key>": the answer is the value. A text with commas, quotes or blanks at its ends
 * stands in double quotes, with a backslash in front of quotes and backslashes. */
static int get(const Camera* camera, const char* key, char* value, size_t size) {
	static const struct {
		const char* key;
		const char* value;
	} texts[] = {{QOR_SIO_KEY_VENDOR_NAME, "Example"}, {QOR_SIO_KEY_MODEL_NAME, "Template camera"},
	    {QOR_SIO_KEY_MANUFACTURER_INFO, "grey ramp"}, {QOR_SIO_KEY_VERSION, "1.0"},
	    {QOR_SIO_KEY_FIRMWARE_VERSION, "1.0"}, {QOR_SIO_KEY_DEVICE_ID, "template-0"}, {QOR_SIO_KEY_PIX_FORMAT, "Mono8"},
	    {QOR_SIO_KEY_PIX_FORMAT_CONVERSION, "none"}};
	const struct {
		const char* key;
		int value;
	} numbers[] = {{QOR_SIO_KEY_MAX_WIDTH, WIDTH}, {QOR_SIO_KEY_MAX_HEIGHT, HEIGHT}, {QOR_SIO_KEY_WIDTH, WIDTH},
	    {QOR_SIO_KEY_HEIGHT, HEIGHT}, {QOR_SIO_KEY_X, 0}, {QOR_SIO_KEY_Y, 0},
	    {QOR_SIO_KEY_FRAME_BYTE_SIZE, FRAME_BYTES}, {QOR_SIO_KEY_EXPOSURE, camera->exposure}};
	size_t i;
	for (i = 0; i < sizeof texts / sizeof texts[0]; ++i) {
		if (strcmp(key, texts[i].key) != 0) continue;
		snprintf(value, size, "\"%s\"", texts[i].value);
		return 1;
	}
	for (i = 0; i < sizeof numbers / sizeof numbers[0]; ++i) {
		if (strcmp(key, numbers[i].key) != 0) continue;
		snprintf(value, size, "%d", numbers[i].value);
		return 1;
	}
	return 0;
}

/* Cuts the next item off a command line. */
static char* takeItem(char** line) {
	char* item = *line;
	char* comma = strchr(item, ',');
	if (comma) *comma = 0;
	*line = comma ? comma + 1 : item + strlen(item);
	return item;
}

/* A command line in, a reply line "<key>,<value>" or "<operation>,<status>" out. A reply
 * without the key tells the host that the get failed. */
static int runCommand(Camera* camera, const char* command, char* reply) {
	char line[QOR_SIO_COMMAND_SIZE];
	char value[256];
	char* rest = line;
	const char* operation;
	const char* key;
	snprintf(line, sizeof line, "%s", command);
	operation = takeItem(&rest);
	if (strcmp(operation, "get") == 0) {
		key = takeItem(&rest);
		if (get(camera, key, value, sizeof value))
			snprintf(reply, QOR_SIO_REPLY_SIZE, "%s,%s", key, value);
		else
			snprintf(reply, QOR_SIO_REPLY_SIZE, "!unknown");
	} else if (strcmp(operation, "set") == 0) {
		key = takeItem(&rest);
		snprintf(reply, QOR_SIO_REPLY_SIZE, "%s,%d", key, set(camera, key, rest));
	} else {
		snprintf(reply, QOR_SIO_REPLY_SIZE, "%s,%d", operation, operate(camera, operation));
	}
	return QOR_SIO_OK;
}

/* What the library asks of the camera. */
static int cameraFunction(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	Camera* camera = (Camera*)context;
	(void)a;
	(void)b;
	switch (code) {
	case qorSIO_OBJ_INFORMATION:
		snprintf((char*)p1, QOR_SIO_INFORMATION_SIZE, QOR_SIO_KEY_TYPE "," QOR_SIO_TYPE_CAMERA);
		return QOR_SIO_OK;
	case qorSIO_OBJ_ATTACH:
		camera->object = p1;
		camera->callback = functionPointer(p2);
		report(camera, qorSIO_EVENT_CONNECTED, NULL); /* the library reads the six device strings now */
		return QOR_SIO_OK;
	case qorSIO_OBJ_COMMAND: return runCommand(camera, (const char*)p1, (char*)p2);
	default: return QOR_SIO_FAILURE;
	}
}

/* The one export. A host may have several managers; each introduces itself, one after the
 * other, and is offered a camera of its own. */
QOR_SIO_EXPORT int qorSIOEFunc(
    void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	qorSIO_ManagerFunc managerCallback;
	Camera* camera;
	(void)a;
	(void)b;
	if (code == qorSIO_PI_INITIALISE) return QOR_SIO_OK;
	if (code != qorSIO_PI_CALLBACK) return QOR_SIO_FAILURE;
	memcpy(&managerCallback, &p2, sizeof managerCallback);
	camera = (Camera*)calloc(1, sizeof *camera);
	if (!camera) return QOR_SIO_FAILURE;
	camera->exposure = 1000;
	camera->next = allCameras;
	allCameras = camera;
	return managerCallback(context, p1, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, camera, dataPointer(cameraFunction));
}
