#pragma once

/// The boundary between the library and a stream I/O plug-in: plain C, for C99 and C++
/// compilers of any vendor. A plug-in includes this file and nothing else of the library,
/// and links nothing of it.
///
/// Rules of the boundary:
/// - Functions use the plain C calling convention and let no exception out.
/// - `unsigned long` has the width of the platform's C compiler: 32 bits on Windows, 64 on
///   Linux. Values that cross fit in 32 bits.
/// - Texts are terminated 8-bit characters. The receiver copies what it wants to keep.
/// - Memory is released by the side that allocated it.
///
/// The conversation:
///
///     library                                   plug-in
///     1001 qorSIO_PI_INITIALISE   ----------->  qorSIOEFunc   0: takes part
///     1002 qorSIO_PI_CALLBACK     ----------->  qorSIOEFunc   keeps manager, pi, callback
///     manager callback            <-----------  10010 qorSIO_CB_PI_CREATE_OBJECT
///     20001 qorSIO_OBJ_INFORMATION ---------->  object function   "!siotype,CqorSIO_VideoCap"
///     20002 qorSIO_OBJ_ATTACH     ----------->  object function   keeps object, callback
///     20010 qorSIO_OBJ_COMMAND    ----------->  object function   "open," -> "open,0"
///     object callback             <-----------  40010 qorSIO_EVENT_DATA, 40100 ...
///
/// Any thread of the plug-in may use the two callbacks. The library may call back into the
/// object function while it is handling an event (it reads the device's strings during
/// 40100), so a plug-in holds no lock of its own while it reports.
///
/// Manager, `pi` and library object are identities, not addresses: a plug-in gives them back
/// as they are and looks at nothing behind them. None is ever used again for another one; when
/// its owner has gone, calls with it are answered with `QOR_SIO_FAILURE` for good. A camera or
/// timing device that is destroyed while it acquires is sent "stop" before.

#include <stddef.h>
#include <stdint.h>

/// The entry function, object functions and the object callback. Its first argument is
/// what the receiver of the call registered: the plug-in's object context for an object
/// function, the library object's identity for the object callback.
typedef int (*qorSIO_Func)(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

/// The manager callback: as above with the plug-in's `pi` (p1 of code 1002) in second place.
typedef int (*qorSIO_ManagerFunc)(
    void* manager, void* pi, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

/// The name under which a plug-in exports its entry function, a `qorSIO_Func`.
#define QOR_SIO_ENTRY_NAME "qorSIOEFunc"

/// Marks the entry function: `QOR_SIO_EXPORT int qorSIOEFunc(void* context, ...)`.
#if defined(_MSC_VER) || defined(__MINGW32__)
#define QOR_SIO_EXPORT_SYMBOL __declspec(dllexport)
#else
#define QOR_SIO_EXPORT_SYMBOL __attribute__((visibility("default")))
#endif
#ifdef __cplusplus
#define QOR_SIO_EXPORT extern "C" QOR_SIO_EXPORT_SYMBOL
#else
#define QOR_SIO_EXPORT QOR_SIO_EXPORT_SYMBOL
#endif

/// Results: 0, or this for a general failure.
#define QOR_SIO_OK 0
#define QOR_SIO_FAILURE 0x10000000

/// Codes of the entry function.
enum {
	qorSIO_PI_INITIALISE = 1001, ///< context: the manager's identity. Answer 0 to take part.
	qorSIO_PI_CALLBACK = 1002    ///< context: the same, p1: `pi`, p2: the `qorSIO_ManagerFunc`.
};

/// Codes of the manager callback.
enum {
	/// p1: object context, p2: object function; neither null. The library asks for the
	/// information line (20001), makes its object and attaches it (20002) before the call
	/// returns. Answer 0 when the object is attached, and also when 20001 was refused.
	qorSIO_CB_PI_CREATE_OBJECT = 10010
};

/// Codes of an object function.
enum {
	/// p1: buffer of `QOR_SIO_INFORMATION_SIZE` zeroed bytes for the information line: items
	/// separated by commas, among them "!siotype" followed by the class name.
	qorSIO_OBJ_INFORMATION = 20001,
	/// p1: the library object's identity, p2: its `qorSIO_Func`. Answer 0 to accept.
	qorSIO_OBJ_ATTACH = 20002,
	/// p1: command line, p2: buffer of `QOR_SIO_REPLY_SIZE` zeroed bytes for the reply line.
	/// Answer 0 when the reply line counts; it carries the status of the operation itself.
	qorSIO_OBJ_COMMAND = 20010
};

/// What a plug-in may write. An information line of exactly this many characters needs no
/// terminator.
#define QOR_SIO_INFORMATION_SIZE 512
/// What a plug-in may write into the buffer of a command, terminator included. The library
/// refuses a reply that is not terminated within it.
#define QOR_SIO_REPLY_SIZE 4096
/// The longest command line the library sends, terminator included.
#define QOR_SIO_COMMAND_SIZE 600

/// Codes of the object callback (events). The answer is 0, or `QOR_SIO_FAILURE` when the
/// library object no longer exists.
enum {
	qorSIO_EVENT_DATA = 40010,      ///< camera: a frame, p1: its `qorSIO_VCAP_FRAME_INFO`. Timing device: a time event.
	qorSIO_EVENT_ACQUIRING = 40011, ///< camera: a = 1 while the sensor acquires, else 0.
	qorSIO_EVENT_CONNECTED = 40100, ///< the device is there; the library reads its strings within the call.
	qorSIO_EVENT_ONLINE = 40101,    ///< the device is there again; its strings stand.
	qorSIO_EVENT_OFFLINE = 40110,   ///< the device is gone.
	qorSIO_EVENT_USER = 40200       ///< handed to the host with all its arguments.
};

/// Asked of the host before the image geometry changes; never sent to plug-ins.
#define QOR_SIO_HOST_GEOMETRY 40120
/// Asked of the host to make the library object for a device; never sent to plug-ins.
#define QOR_SIO_HOST_CREATE 1

/// The information line: the item in front of the class name, and the class names, which are
/// compared without regard to case.
#define QOR_SIO_KEY_TYPE "!siotype"
#define QOR_SIO_TYPE_OBJECT "CqorSIO_Object"
#define QOR_SIO_TYPE_CAMERA "CqorSIO_VideoCap"
#define QOR_SIO_TYPE_TIMING_DEVICE "CqorSIO_TimeCap"

/// Operations. Only "allocbuffers" has an argument, the number of buffers.
#define QOR_SIO_OP_OPEN "open"
#define QOR_SIO_OP_CLOSE "close"
#define QOR_SIO_OP_ALLOC_BUFFERS "allocbuffers"
#define QOR_SIO_OP_RELEASE_BUFFERS "releasebuffers"
#define QOR_SIO_OP_PREPARE "prepare"
#define QOR_SIO_OP_START "start"
#define QOR_SIO_OP_STOP "stop"

/// Property keys. Pixels, microseconds and frames per second where nothing else is said.
#define QOR_SIO_KEY_VENDOR_NAME "!vendorname" /* of a camera, */
#define QOR_SIO_KEY_VENDOR_INFO "!vendorinfo" /* and of a timing device */
#define QOR_SIO_KEY_MODEL_NAME "!modelname"
#define QOR_SIO_KEY_MANUFACTURER_INFO "!manufacturerinfo"
#define QOR_SIO_KEY_VERSION "!version"
#define QOR_SIO_KEY_FIRMWARE_VERSION "!firmwareversion"
#define QOR_SIO_KEY_DEVICE_ID "!deviceID"
#define QOR_SIO_KEY_MAX_WIDTH "!maxwidth"
#define QOR_SIO_KEY_MAX_HEIGHT "!maxheight"
#define QOR_SIO_KEY_WIDTH "!width"
#define QOR_SIO_KEY_HEIGHT "!height"
#define QOR_SIO_KEY_X "!x"
#define QOR_SIO_KEY_Y "!y"
#define QOR_SIO_KEY_ROI "!roi"      /* set only: x,y,width,height */
#define QOR_SIO_KEY_ROI_EX "!roiex" /* set only: the same and two values of the device's own */
#define QOR_SIO_KEY_EXPOSURE "!exposure"
#define QOR_SIO_KEY_MIN_EXPOSURE "!minexposure"
#define QOR_SIO_KEY_MAX_EXPOSURE "!maxexposure"
#define QOR_SIO_KEY_GAIN "!gain"
#define QOR_SIO_KEY_MIN_GAIN "!mingain"
#define QOR_SIO_KEY_MAX_GAIN "!maxgain"
#define QOR_SIO_KEY_FRAME_RATE "!framerate"
#define QOR_SIO_KEY_MIN_FRAME_RATE "!minframerate"
#define QOR_SIO_KEY_MAX_FRAME_RATE "!maxframerate"
#define QOR_SIO_KEY_FRAME_BYTE_SIZE "!framebytesize" /* bytes */
#define QOR_SIO_KEY_PIX_FORMAT "!pixformat"
#define QOR_SIO_KEY_PIX_FORMAT_CONVERSION "!pixformatconversion"
#define QOR_SIO_KEY_GIGE_PACKET_SIZE "!gige_packet_size" /* bytes */
#define QOR_SIO_KEY_TIME "!time"                         /* of a timing device: seven parts between '/' */
/// Features by name: the name stands behind the key. A command is set to the empty text.
#define QOR_SIO_KEY_FEATURE_STRING "!genicam:str:"
#define QOR_SIO_KEY_FEATURE_INT32 "!genicam:int32:"
#define QOR_SIO_KEY_FEATURE_FLOAT32 "!genicam:float32:"
#define QOR_SIO_KEY_FEATURE_COMMAND "!genicam:cmd:"

/// Pixel formats of `qorSIO_VCAP_FRAME_INFO`: bits per pixel; the high byte is 1 where the
/// more significant byte of a pixel stands first.
enum {
	qorSIO_PIXEL_UNKNOWN = 0,
	qorSIO_PIXEL_MONO8 = 0x0008,
	qorSIO_PIXEL_MONO16 = 0x0010,
	qorSIO_PIXEL_MONO16_BIG_ENDIAN = 0x0110
};

/// Bits of `mFlags`.
enum {
	qorSIO_FRAME_INCOMPLETE = 1 ///< bytes are missing; `mByteSize` counts the valid ones.
};

/// What a plug-in hands over with a frame (p1 of event 40010). 56 bytes, little-endian:
///
///     offset  width
///          0  u32    flags (qorSIO_FRAME_...)
///          4  u32    index of the frame buffer; the host receives it as `a`
///          8  u64    address of the frame in memory
///         16  u64    valid bytes of the frame
///         24  u64    frame number; a gap tells of lost frames
///         32  u64    device time stamp in nanoseconds
///         40  u32    width in pixels
///         44  u32    height in lines
///         48  u32    bytes from one line to the next
///         52  u16    pixel format (qorSIO_PIXEL_...)
///         54  u16    bytes before the first pixel
///
/// The record is the host's until the event returns. The frame stays unchanged until all
/// other buffers of the device have been filled once more, or the buffers are released.
/// Camera drivers with records of their own may hand over any record of at least 8 bytes;
/// the library itself reads only the second word.
typedef struct qorSIO_VCAP_FRAME_INFO {
	uint32_t mFlags;
	uint32_t mBufferIndex;
	uint64_t mFrame;
	uint64_t mByteSize; ///< 0 in a record fresh from `GetFreeFrameInfoPtr`: it holds no frame.
	uint64_t mFrameNumber;
	uint64_t mTimeStamp;
	uint32_t mWidth;
	uint32_t mHeight;
	uint32_t mStride;
	uint16_t mPixelFormat;
	uint16_t mPixelOffset;
} qorSIO_VCAP_FRAME_INFO;

#if defined(__cplusplus)
#define QOR_SIO_CHECK(name, condition) static_assert(condition, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define QOR_SIO_CHECK(name, condition) _Static_assert(condition, #name)
#else
#define QOR_SIO_CHECK(name, condition) typedef char qor_sio_check_##name[(condition) ? 1 : -1]
#endif
QOR_SIO_CHECK(frame_info_size, sizeof(qorSIO_VCAP_FRAME_INFO) == 56);
QOR_SIO_CHECK(frame_info_buffer_index, offsetof(qorSIO_VCAP_FRAME_INFO, mBufferIndex) == 4);
QOR_SIO_CHECK(frame_info_frame, offsetof(qorSIO_VCAP_FRAME_INFO, mFrame) == 8);
QOR_SIO_CHECK(frame_info_byte_size, offsetof(qorSIO_VCAP_FRAME_INFO, mByteSize) == 16);
QOR_SIO_CHECK(frame_info_frame_number, offsetof(qorSIO_VCAP_FRAME_INFO, mFrameNumber) == 24);
QOR_SIO_CHECK(frame_info_time_stamp, offsetof(qorSIO_VCAP_FRAME_INFO, mTimeStamp) == 32);
QOR_SIO_CHECK(frame_info_width, offsetof(qorSIO_VCAP_FRAME_INFO, mWidth) == 40);
QOR_SIO_CHECK(frame_info_height, offsetof(qorSIO_VCAP_FRAME_INFO, mHeight) == 44);
QOR_SIO_CHECK(frame_info_stride, offsetof(qorSIO_VCAP_FRAME_INFO, mStride) == 48);
QOR_SIO_CHECK(frame_info_pixel_format, offsetof(qorSIO_VCAP_FRAME_INFO, mPixelFormat) == 52);
QOR_SIO_CHECK(frame_info_pixel_offset, offsetof(qorSIO_VCAP_FRAME_INFO, mPixelOffset) == 54);
QOR_SIO_CHECK(pointer_fits, sizeof(void*) <= 8);
