#include "file.h"

#include "../platform/format.h"

#include "file_back_end_internal.h"
#include "file_stream_internal.h"
#include "host_call_internal.h"
#include "mem_file.h"
#include "object_watch_internal.h"
#include "status.h"

#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t kTextBuffer = 1024; // bytes
constexpr size_t kWideTextBuffer = kTextBuffer / sizeof(char16_t);

void* asPointer(long long number) { return reinterpret_cast<void*>(static_cast<intptr_t>(number)); }

} // namespace

/// An operation during which the file cannot be opened or armed anew. Outlives the file if need be.
class CstFile::Change {
public:
	explicit Change(CstFile& file) : mFile(file), mWatch(file.mWatches) { ++file.mChanges; }
	~Change() {
		if (mWatch.alive()) --mFile.mChanges;
	}
	Change(const Change&) = delete;
	Change& operator=(const Change&) = delete;

private:
	CstFile& mFile;
	const base::ObjectWatch mWatch;
};

CstFile::CstFile() = default;

CstFile::~CstFile() {
	base::ObjectWatch::objectGone(mWatches); // operations whose callback destroys the file
	closeNow();
	mCallBack = nullptr;
	closeNow(); // what the callback opened
}

unsigned long CstFile::Open(const char* path, unsigned long disposition, unsigned long access, unsigned long share) {
	base::FileOpenRecord record;
	record.path = path;
	record.disposition = disposition;
	record.access = access;
	record.share = share;
	return openWith(&base::systemBackEnd, record, false);
}

unsigned long CstFile::OpenReadOnly(const char* path) {
	return Open(path, kOpenExisting, kAccessRead, kShareReadWrite);
}

unsigned long CstFile::OpenDisk(const char* path) {
	base::FileOpenRecord record;
	record.path = path;
	record.access = kAccessReadWrite;
	record.share = kShareReadWrite;
	return openWith(&base::systemBackEnd, record, true);
}

unsigned long CstFile::Create(const char* path, unsigned long access, unsigned long share) {
	return Open(path, kCreateAlways, access, share);
}

unsigned long CstFile::OpenFromMemory(void* block, unsigned long size) {
	base::FileOpenRecord record;
	record.memory = block;
	record.memorySize = size;
	record.access = kAccessReadWrite;
	record.share = kShareReadWrite;
	return openWith(&base::memoryBackEnd, record, false);
}

unsigned long CstFile::openWith(CstFileBackEnd backEnd, base::FileOpenRecord& record, bool disk) {
	if (isWriterCalling() || mChanges != 0) return kFileNotOpen;
	unsigned long error = kFileNoMemory;
	{
		const Change change(*this);
		bool closed = false;
		if (!endAll(&closed) || (closed && !notify(kCallBackClosed))) return kFileNotOpen;
		mBackEnd = backEnd;
		auto* opened = base::OpenedFile::make(backEnd);
		if (opened) error = opened->open(record);
		if (error == 0) {
			mOpened = opened;
			mHandle = record.handle;
			mDiskFile = disk;
		} else if (opened) {
			opened->drop();
		}
	}
	if (error != 0) {
		notify(kCallBackOpenFailed, 1, asPointer(static_cast<long long>(error)));
		return error;
	}
	// A block is gone to its start, as hosts see it; the callback may have closed or opened another.
	if (notify(kCallBackOpened) && record.memory && mHandle == record.handle) Seek(0, kSeekBegin);
	return 0;
}

unsigned long CstFile::Close() {
	if (!isWriterCalling()) closeNow();
	return 0;
}

void CstFile::closeNow() {
	bool closed = false;
	if (endAll(&closed) && closed) notify(kCallBackClosed);
}

/// Whether this is the thread of a writer that calls the host back: it is not the file's user.
bool CstFile::isWriterCalling() const { return base::FileStream::isCallingFor(this); }

/// Ends streaming and closes what is open.
/// @param closed receives whether there was something.
/// @return whether this object is still there.
bool CstFile::endAll(bool* closed) {
	const Change change(*this);
	if (mStream && !finish()) return false;
	*closed = mOpened != nullptr;
	forgetFile();
	return true;
}

/// What is still under way on the file keeps it open for itself.
void CstFile::forgetFile() {
	mHandle = nullptr;
	mDiskFile = false;
	if (auto* opened = std::exchange(mOpened, nullptr)) opened->drop();
}

unsigned long CstFile::Write(const void* data, unsigned long n) {
	if (isWriterCalling() || !mHandle || (mStreamFlags & kReadStreaming)) return 0;
	auto* bytes = const_cast<void*>(data); // one pointer serves both directions
	if (!notify(kCallBackWrite, n, bytes) || !mHandle || (mStreamFlags & kReadStreaming)) return 0;
	return writeStreaming() ? mStream.load()->write(data, n) : callBackEnd(base::kCodeWrite, n, bytes);
}

unsigned long CstFile::Read(void* buffer, unsigned long n) {
	if (isWriterCalling() || !mHandle || writeStreaming()) return 0;
	if (!notify(kCallBackRead, n, buffer) || !mHandle || writeStreaming()) return 0;
	return callBackEnd(base::kCodeRead, n, buffer);
}

unsigned long CstFile::Seek(long offset, unsigned long origin) { return static_cast<uint32_t>(Seek64(offset, origin)); }

long long CstFile::Seek64(long long offset, unsigned long origin) {
	if (!mHandle) return 0;
	if (!notify(kCallBackSeek, origin, asPointer(offset)) || !mHandle) return 0;
	int64_t position = offset;
	callBackEnd(base::kCodeSeek, origin, &position);
	return position;
}

unsigned long CstFile::GetSize() const { return static_cast<uint32_t>(GetSize64()); }

long long CstFile::GetSize64() const {
	int64_t size = 0;
	if (mHandle) callBackEnd(base::kCodeSize, 0, &size);
	return size;
}

unsigned long CstFile::GetCurrentPos() const { return static_cast<uint32_t>(GetCurrentPos64()); }

long long CstFile::GetCurrentPos64() const {
	int64_t position = 0;
	if (mHandle) callBackEnd(base::kCodePosition, 0, &position);
	return position;
}

bool CstFile::IsOSFile() const { return mBackEnd == &base::systemBackEnd; }

bool CstFile::IsMemFile() const { return mBackEnd == &base::memoryBackEnd; }

void* CstFile::GetMemoryBlock() const {
	return mHandle && IsMemFile() ? static_cast<const CstMemFile*>(mHandle)->GetBuffer() : nullptr;
}

const estFILE_STREAM* CstFile::GetStreamInfo() const { return mStream.load(); }

void CstFile::SetCallBack(CstFileCallBack callBack) {
	mCallBack = callBack;
	if (auto* stream = mStream.load()) stream->setCallBack(callBack);
}

void CstFile::SetWriteStreamPackSize(unsigned long bytes) {
	if (bytes == 0 || bytes > UINT32_MAX) return;
	mWritePackSize = static_cast<uint32_t>(bytes);
	if (auto* stream = mStream.load()) stream->setPackSize(mWritePackSize);
}

/// @return whether this object is still there; what else it was may have changed, too.
bool CstFile::notify(unsigned long code, unsigned long a, void* p) {
	const auto callBack = mCallBack.load();
	if (!callBack) return true;
	const base::ObjectWatch watch(mWatches);
	base::callHost("CstFile", [&] { callBack(this, code, 0, a, p); });
	return watch.alive();
}

/// A file must be open.
unsigned long CstFile::callBackEnd(unsigned long code, unsigned long b, void* p) const {
	return mOpened->call(code, b, p);
}

unsigned long CstFile::PrepareForStreaming(unsigned long bufferKiB, unsigned long count, unsigned long mode) {
	if (isWriterCalling() || mChanges != 0) return kFileNotOpen;
	{
		const Change change(*this);
		if (!notify(kCallBackPrepareBegin) || (mStream && !finish())) return kFileNotOpen;
		mLostBytes = 0;
		mStream = base::FileStream::make(
		    this, mOpened, mCallBack, mWritePackSize, bufferKiB, count, (mode & kWriteStreaming) != 0);
		if (!mStream) return kFileNoMemory;
		mStreamFlags = static_cast<uint32_t>(mode & (kReadStreaming | kWriteStreaming));
	}
	notify(kCallBackPrepareEnd);
	return 0;
}

unsigned long CstFile::FinishStreaming() {
	if (!isWriterCalling()) finish();
	return kQorSuccess;
}

unsigned long long CstFile::GetLostBytes() const {
	const auto* stream = mStream.load();
	return stream ? stream->mLostBytes.load() : mLostBytes;
}

/// @return whether this object is still there.
bool CstFile::finish() { return notify(kCallBackFinishBegin) && endStreaming() && notify(kCallBackFinishEnd); }

/// Takes the stream off, so that callbacks find none, and ends it. @return as `finish`.
bool CstFile::endStreaming() {
	auto* stream = mStream.exchange(nullptr);
	const bool writes = writeStreaming();
	mStreamFlags = 0;
	if (!stream) return true;
	bool here = true;
	if (writes) {
		stream->next();
		if (!stream->stopWriter()) {
			mLostBytes = stream->mLostBytes + stream->unwrittenBytes();
			stream->drop();
			const bool wasOpen = mOpened != nullptr;
			forgetFile(); // the writer closes it
			return !wasOpen || notify(kCallBackClosed);
		}
		while (auto* buffer = stream->takeOldest()) here = flushHere(*stream, *buffer, here);
	}
	if (here) mLostBytes = stream->mLostBytes;
	stream->drop();
	return here;
}

estFILE_STREAM_BUFFER* CstFile::FlushToNextBuffer() {
	auto* stream = mStream.load();
	return stream && !isWriterCalling() ? stream->next() : nullptr;
}

unsigned long CstFile::FlushBuffer(estFILE_STREAM_BUFFER* buffer) {
	auto* stream = mStream.load();
	if (isWriterCalling() || !stream || !stream->owns(buffer)) return kQorFailure;
	if (base::FileStream::isWriters(*buffer)) return kQorSuccess;
	stream->share(); // a callback may end it
	flushHere(*stream, *buffer, true);
	stream->drop();
	return kQorSuccess;
}

/// Writes a buffer from the caller's thread.
/// @param here whether this object is still there: nobody is told of a flush otherwise.
/// @return the same, behind the callbacks.
bool CstFile::flushHere(base::FileStream& stream, estFILE_STREAM_BUFFER& buffer, bool here) {
	const uint32_t count = base::FileStream::bytesToWrite(buffer);
	here = here && notify(kCallBackFlushBegin, count, &buffer);
	if (here && mStream == &stream && base::FileStream::isWriters(buffer)) return true; // queued meanwhile
	const uint32_t written = stream.writeOut(buffer, count);
	return here && notify(kCallBackFlushEnd, written, &buffer);
}

unsigned long CstFile::ResetBuffer(estFILE_STREAM_BUFFER* buffer) {
	auto* stream = mStream.load();
	if (isWriterCalling() || !stream || !stream->owns(buffer) || base::FileStream::isWriters(*buffer))
		return kQorFailure;
	stream->markFree(*buffer);
	return kQorSuccess;
}

unsigned long CstFile::WriteText(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeNarrow(format, arguments, false);
	va_end(arguments);
	return written;
}

unsigned long CstFile::WriteText(const wchar_t* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeWide(format, arguments, false);
	va_end(arguments);
	return written;
}

unsigned long CstFile::WriteTextLine(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeNarrow(format, arguments, true);
	va_end(arguments);
	return written;
}

unsigned long CstFile::WriteTextLine(const wchar_t* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeWide(format, arguments, true);
	va_end(arguments);
	return written;
}

unsigned long CstFile::writeNarrow(const char* format, va_list arguments, bool line) {
	if (!format) return 0;
	char text[kTextBuffer];
	const size_t end = line ? 2 : 0; // room kept for the line end
	const size_t length = platform::formatTextV(text, kTextBuffer - end, format, arguments);
	if (line) {
		text[length] = '\r';
		text[length + 1] = '\n';
	}
	return Write(text, static_cast<unsigned long>(length + end));
}

unsigned long CstFile::writeWide(const wchar_t* format, va_list arguments, bool line) {
	if (!format) return 0;
	char16_t text[kWideTextBuffer];
	const size_t end = line ? 2 : 0;
	const size_t length = platform::formatWideV(text, kWideTextBuffer - end, format, arguments);
	if (line) std::memcpy(text + length, u"\r\n", 2 * sizeof(char16_t));
	return Write(text, static_cast<unsigned long>((length + end) * sizeof(char16_t)));
}
