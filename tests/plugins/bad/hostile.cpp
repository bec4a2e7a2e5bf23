#include <qor/plugins/sio_plugin.h>

#include <cstring>

/// Offers devices no plug-in should; `answers` gives what the manager answered, `known` what it
/// introduced itself with.
static int sAnswers[5];
static void* sKnown[2]; // manager, pi

static int overrunInformation(void*, unsigned long code, unsigned long, unsigned long, void* p1, void*) {
	if (code != qorSIO_OBJ_INFORMATION) return 0;
	// As long as the buffer, without a terminator, and then some.
	std::memset(p1, 'x', QOR_SIO_INFORMATION_SIZE + 100);
	std::memcpy(p1, "!siotype,CqorSIO_Object,%s%n", 28);
	return 0;
}

static int camera(void*, unsigned long code, unsigned long, unsigned long, void* p1, void*) {
	if (code == qorSIO_OBJ_INFORMATION) std::strcpy(static_cast<char*>(p1), "!siotype,CqorSIO_VideoCap");
	return 0;
}

QOR_SIO_EXPORT int qorSIOEFunc(void* manager, unsigned long code, unsigned long, unsigned long, void* pi, void* p2) {
	if (code != qorSIO_PI_CALLBACK) return 0;
	const auto callback = reinterpret_cast<qorSIO_ManagerFunc>(p2);
	sKnown[0] = manager;
	sKnown[1] = pi;
	const auto offer = [&](void* from, unsigned long request, qorSIO_Func function) {
		return callback(manager, from, request, 0, 0, &sAnswers, reinterpret_cast<void*>(function));
	};
	sAnswers[0] = offer(pi, qorSIO_CB_PI_CREATE_OBJECT, nullptr);
	sAnswers[1] = offer(pi, qorSIO_CB_PI_CREATE_OBJECT, overrunInformation);
	sAnswers[2] = offer(pi, 4711, camera);
	sAnswers[3] = offer(&sAnswers, qorSIO_CB_PI_CREATE_OBJECT, camera);
	sAnswers[4] = offer(pi, qorSIO_CB_PI_CREATE_OBJECT, camera);
	return 0;
}

QOR_SIO_EXPORT const int* answers() { return sAnswers; }
QOR_SIO_EXPORT void** known() { return sKnown; }
