#pragma once

#include "../core/managed_object.h"
#include "../platform/export.h"
#include "sio_plugin.h"

#include <cstdarg>
#include <cstddef>

class CmcLineParSet;
namespace plugins {
struct LivePlace;
}

/// Characters that a value's text buffer of unstated size must hold, terminator included.
inline constexpr int kQorSioValueSize = 512;

/// The library's side of one device of a plug-in.
///
/// The plug-in side is a pair of object context and object function. Commands may be sent
/// from any thread (also from within an event); the plug-in decides how it serialises
/// them. Events arrive on the plug-in's threads.
///
/// What the plug-in is given of an object is its identity, no address: it belongs to this one
/// object and to none after it. So an object may be deleted while its plug-in still lives, also
/// from within one of its events: later events are answered with 0x10000000 and reach nothing.
/// The destructor waits for events that run on other threads, so hold nothing there that they
/// wait for, and let no two events delete each other's objects. A device that is destroyed while
/// it acquires is stopped. A derived class that overrides `OnObjectCB`, or brings the plug-in's
/// side with it, calls `piRetire` first in its own destructor, so that no event meets a half
/// destroyed object.
///
/// Commands and replies are lines of items separated by commas. In a reply the value is
/// the item behind the first item equal to the key (exact comparison). A reply without
/// that item, an empty value, or a non-zero answer of the object function is 0x10000000.
/// Items in double quotes lose them, and the escapes `\"`, `\\`, `\n`, `\r`, `\t` in them are decoded.
class QOR_API CqorSIO_Object : public Cmc {
public:
	CqorSIO_Object();
	~CqorSIO_Object() override;
	CqorSIO_Object(const CqorSIO_Object&) = delete;
	CqorSIO_Object& operator=(const CqorSIO_Object&) = delete;

	/// Binds the plug-in's pair and introduces this object to it (code 20002). Once, before the
	/// object is used.
	/// @return 0; 0x10000000 when either is null, the plug-in refuses, or there was no memory for
	///         the object's identity. The pair stays stored in every case.
	int piAccept(void* objectContext, qorSIO_Func objectFunction);
	/// Calls the object function. @return its answer; 0x10000000 without one.
	int piFunc(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);
	/// Hands an event to `OnObjectCB`.
	int piObjCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);
	/// The callback handed to plug-ins. `object` is the identity from code 20002; hosts may give
	/// the address of an object that exists. @return `OnObjectCB`'s answer; 0x10000000 for null and
	/// for an object that no longer exists.
	static int _piObjCB(void* object, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// Sends a command (code 20010), formatted with the log's printf directives.
	/// @param reply receives the plug-in's reply line with its terminator, up to
	///              `QOR_SIO_REPLY_SIZE` bytes. Null: the reply is dropped.
	/// @return the object function's answer; 0x10000000, with an empty reply, without one and for a
	///         null format; also for a command of 600 or more characters, which is not sent, and a
	///         reply of more than `QOR_SIO_REPLY_SIZE` bytes. These two are logged.
	int piVerboseCmd(char* reply, const char* format, ...);

	/// Sends "<op>,<argument>". @return the integer behind the operation in the reply.
	int piVerboseSingleOP(const char* op, const char* argument);

	/// Sends "get,<key>" and gives the value; the output is untouched on failure.
	/// A text goes into `kQorSioValueSize` characters; a longer one is refused, never cut.
	/// @return 0 or 0x10000000.
	int piVerboseGetSingleValue(const char* key, char* out);
	int piVerboseGetInt32(const char* key, int* out);
	int piVerboseGetFloat32(const char* key, float* out);
	int piVerboseGetString(const char* key, char* out);
	/// As above into `size` characters; a text that does not fit is refused.
	int piVerboseGetString(const char* key, char* out, std::size_t size);

	/// Sends "set,<key>,<value>". A text is sent between double quotes as it is, without
	/// escapes. @return the plug-in's status (the integer behind the key in the reply).
	int piVerboseSetInt32(const char* key, int value);
	int piVerboseSetFloat32(const char* key, float value);
	int piVerboseSetString(const char* key, const char* value);

	/// An event of the plug-in, on the plug-in's thread. @return what the plug-in receives; here 0.
	virtual int OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

protected:
	/// Ends the object's identity: no event arrives any more, and those on other threads have ended
	/// when it returns. Then calls `OnRetire`. May be called twice; the second call does nothing.
	void piRetire();
	/// Called once, when no event arrives any more and the plug-in can still be sent commands: what
	/// must not go on without the object is ended here. Nothing in this class; capture devices stop.
	virtual void OnRetire();
	/// Sends a formatted command with a reply buffer of the library and splits the reply.
	/// @return 0; 0x10000000 when the command cannot be sent, the plug-in answers non-zero, or
	///         the reply is not terminated within `QOR_SIO_REPLY_SIZE`, which is logged.
	int piAsk(CmcLineParSet& reply, const char* format, ...);
	/// The integer behind `key`; 0x10000000 when the reply has no value for it.
	static int piInteger(const CmcLineParSet& reply, const char* key);

private:
	friend class CqorSIO_VideoCap;
	friend class CqorSIO_TimeCap;
	struct Reply;

	virtual void piReserved1();
	virtual void piReserved2();
	virtual void piReserved3();
	int sendCommand(Reply* reply, const char* format, va_list arguments);
	int getValue(CmcLineParSet& reply, const char* key);

	void* mObjectContext = nullptr;
	qorSIO_Func mObjectFunction = nullptr;
	plugins::LivePlace* mPlace; // identity and machinery; null without memory and after `piRetire`
};
