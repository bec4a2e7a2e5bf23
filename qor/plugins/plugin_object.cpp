#include "plugin_object.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../core/line_parameters.h"
#include "../core/visible_text_internal.h"
#include "../platform/format.h"
#include "live_table_internal.h"

#include <cstdarg>
#include <cstring>

/// What a plug-in may write, and as much again that it must not: a reply that runs on is
/// found by its missing terminator instead of by what it destroyed. Cleared, so that a reply
/// without a terminator ends where the plug-in stopped.
struct CqorSIO_Object::Reply {
	char text[2 * QOR_SIO_REPLY_SIZE];
	Reply() { std::memset(text, 0, QOR_SIO_REPLY_SIZE); }
	bool isTerminated() const { return std::memchr(text, 0, QOR_SIO_REPLY_SIZE) != nullptr; }
};

CqorSIO_Object::CqorSIO_Object() : mPlace(plugins::enrol(plugins::Live::object, this)) {}

CqorSIO_Object::~CqorSIO_Object() { piRetire(); }

void CqorSIO_Object::piRetire() {
	if (!mPlace) return;
	plugins::retire(mPlace);
	mPlace = nullptr; // events on other threads have used it up to here; from now on it may be another's
	OnRetire();
}

int CqorSIO_Object::piAccept(void* objectContext, qorSIO_Func objectFunction) {
	mObjectContext = objectContext;
	mObjectFunction = objectFunction;
	if (!objectContext || !objectFunction) return kQorFailure;
	if (!mPlace) {
		_mclog(3, "No memory for the events of this object");
		return kQorFailure;
	}
	const int answer = piFunc(qorSIO_OBJ_ATTACH, 0, 0, plugins::identityOf(mPlace), reinterpret_cast<void*>(&_piObjCB));
	return answer == 0 ? kQorSuccess : kQorFailure;
}

int CqorSIO_Object::piFunc(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	if (!mObjectFunction) return kQorFailure;
	return base::callHost(
	    "plug-in object function", [&] { return mObjectFunction(mObjectContext, code, a, b, p1, p2); });
}

int CqorSIO_Object::piObjCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	return base::callHost("OnObjectCB", [&] { return OnObjectCB(code, a, b, p1, p2); });
}

int CqorSIO_Object::_piObjCB(void* object, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const plugins::LiveCall call(plugins::Live::object, object);
	return call.object() ? static_cast<CqorSIO_Object*>(call.object())->piObjCB(code, a, b, p1, p2) : kQorFailure;
}

int CqorSIO_Object::OnObjectCB(unsigned long, unsigned long, unsigned long, void*, void*) { return kQorSuccess; }

void CqorSIO_Object::OnRetire() {}

int CqorSIO_Object::sendCommand(Reply* reply, const char* format, va_list arguments) {
	if (!format) return kQorFailure;
	char command[QOR_SIO_COMMAND_SIZE + 1];
	// A command cut short could be another valid one, so one that does not fit is not sent.
	if (platform::formatTextV(command, sizeof command, format, arguments) >= QOR_SIO_COMMAND_SIZE) {
		_mclog(3, "Command is longer than %d characters (%.100s...)", QOR_SIO_COMMAND_SIZE - 1, command);
		return kQorFailure;
	}
	const plugins::LiveWatch watch(mPlace);
	const int answer = piFunc(qorSIO_OBJ_COMMAND, 0, 0, command, reply->text);
	if (reply->isTerminated()) return answer;
	if (!watch.gone())
		_mclog(3, "Reply is longer than %d characters (%.100s...)", QOR_SIO_REPLY_SIZE - 1,
		    core::VisibleText(reply->text).get());
	reply->text[0] = 0;
	return kQorFailure;
}

int CqorSIO_Object::piVerboseCmd(char* reply, const char* format, ...) {
	Reply buffer;
	va_list arguments;
	va_start(arguments, format);
	const int answer = sendCommand(&buffer, format, arguments);
	va_end(arguments);
	if (reply) std::memcpy(reply, buffer.text, std::strlen(buffer.text) + 1);
	return answer;
}

int CqorSIO_Object::piAsk(CmcLineParSet& reply, const char* format, ...) {
	Reply buffer;
	va_list arguments;
	va_start(arguments, format);
	const int answer = sendCommand(&buffer, format, arguments);
	va_end(arguments);
	if (answer != 0) return kQorFailure;
	reply.Feed(buffer.text, 1, 1); // a failure leaves no items, and so no value
	return kQorSuccess;
}

int CqorSIO_Object::piInteger(const CmcLineParSet& reply, const char* key) {
	return reply.par(key, 0)[0] ? reply.parInt(key, 0, 0) : kQorFailure;
}

int CqorSIO_Object::getValue(CmcLineParSet& reply, const char* key) {
	if (!key || piAsk(reply, "get,%s", key) != kQorSuccess) return kQorFailure;
	return reply.par(key, 0)[0] ? kQorSuccess : kQorFailure;
}

int CqorSIO_Object::piVerboseSingleOP(const char* op, const char* argument) {
	CmcLineParSet reply;
	if (!op || piAsk(reply, "%s,%s", op, argument ? argument : "") != kQorSuccess) return kQorFailure;
	return piInteger(reply, op);
}

int CqorSIO_Object::piVerboseGetSingleValue(const char* key, char* out) {
	return piVerboseGetString(key, out, kQorSioValueSize);
}

int CqorSIO_Object::piVerboseGetInt32(const char* key, int* out) {
	CmcLineParSet reply;
	if (!out || getValue(reply, key) != kQorSuccess) return kQorFailure;
	*out = reply.parInt(key, 0, 0);
	return kQorSuccess;
}

int CqorSIO_Object::piVerboseGetFloat32(const char* key, float* out) {
	CmcLineParSet reply;
	if (!out || getValue(reply, key) != kQorSuccess) return kQorFailure;
	*out = static_cast<float>(reply.parDouble(key, 0, 0));
	return kQorSuccess;
}

int CqorSIO_Object::piVerboseGetString(const char* key, char* out) {
	return piVerboseGetString(key, out, kQorSioValueSize);
}

int CqorSIO_Object::piVerboseGetString(const char* key, char* out, std::size_t size) {
	const plugins::LiveWatch watch(mPlace);
	CmcLineParSet reply;
	if (!out || getValue(reply, key) != kQorSuccess) return kQorFailure;
	const char* value = reply.par(key, 0);
	const auto length = std::strlen(value);
	if (length >= size) {
		if (!watch.gone()) _mclog(3, "Value of %s is longer than %d characters", key, static_cast<int>(size) - 1);
		return kQorFailure;
	}
	std::memcpy(out, value, length + 1);
	return kQorSuccess;
}

int CqorSIO_Object::piVerboseSetInt32(const char* key, int value) {
	CmcLineParSet reply;
	if (!key || piAsk(reply, "set,%s,%d", key, value) != kQorSuccess) return kQorFailure;
	return piInteger(reply, key);
}

int CqorSIO_Object::piVerboseSetFloat32(const char* key, float value) {
	CmcLineParSet reply;
	if (!key || piAsk(reply, "set,%s,%f", key, static_cast<double>(value)) != kQorSuccess) return kQorFailure;
	return piInteger(reply, key);
}

int CqorSIO_Object::piVerboseSetString(const char* key, const char* value) {
	CmcLineParSet reply;
	if (!key || piAsk(reply, "set,%s,\"%s\"", key, value ? value : "") != kQorSuccess) return kQorFailure;
	return piInteger(reply, key);
}

const char* CqorSIO_Object::gettype() const { return "CqorSIO_Object"; }
qorMCClassFunc CqorSIO_Object::getclassfunc() const { return qorMC__CLASSFUNC; }

// Places for operations to come: a class of a host keeps its own behind them.
void CqorSIO_Object::piReserved1() {}
void CqorSIO_Object::piReserved2() {}
void CqorSIO_Object::piReserved3() {}

int CqorSIO_Object::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_Object>("CqorSIO_Object", command, out);
}
