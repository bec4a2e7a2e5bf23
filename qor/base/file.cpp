#include "file.h"

#include "../platform/format.h"

#include "file_back_end_internal.h"
#include "file_stream_internal.h"
#include "mem_file.h"
#include "status.h"

#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t kTextBuffer = 1024; // bytes
constexpr size_t kWideTextBuffer = kTextBuffer / sizeof(char16_t);

enum CallBackCode : unsigned long {
	kOpened = 1,
	kClosed = 2,
	kWrite = 3,
	kRead = 4,
	kSeek = 5,
	kPrepareBegin = 6,
	kPrepareEnd = 7,
	kFinishBegin = 8,
	kFinishEnd = 9,
	kOpenFailed = 4096
};

void* asPointer(long long number) { return reinterpret_cast<void*>(static_cast<intptr_t>(number)); }

} // namespace

CstFile::~CstFile() { Close(); }

unsigned long CstFile::Open(const char* path, unsigned long disposition, unsigned long access, unsigned long share) {
	base::FileOpenRecord record;
	record.path = path;
	record.disposition = disposition;
	record.access = access;
	record.share = share;
	return openWith(&base::systemBackEnd, record);
}

unsigned long CstFile::OpenReadOnly(const char* path) { return Open(path, 3, 0x80000000, 3); }

unsigned long CstFile::OpenDisk(const char* path) {
	const auto result = Open(path, 3, 0xC0000000, 3);
	mDiskFile = result == 0;
	return result;
}

unsigned long CstFile::Create(const char* path, unsigned long access, unsigned long share) {
	return Open(path, 2, access, share);
}

unsigned long CstFile::OpenFromMemory(void* block, unsigned long size) {
	base::FileOpenRecord record;
	record.memory = block;
	record.memorySize = size;
	record.access = 0xC0000000;
	record.share = 3;
	const auto result = openWith(&base::memoryBackEnd, record);
	if (result == 0) Seek(0, 0);
	return result;
}

unsigned long CstFile::openWith(CstFileBackEnd backEnd, base::FileOpenRecord& record) {
	closeHandle();
	mBackEnd = backEnd;
	const auto error = backEnd(nullptr, base::kCodeOpen, 0, 0, 0, &record);
	if (error != 0) {
		notify(kOpenFailed, 1, asPointer(static_cast<long long>(error)));
		return error;
	}
	mHandle = record.handle;
	notify(kOpened);
	return 0;
}

unsigned long CstFile::Close() {
	closeHandle();
	return 0;
}

/// Ends streaming and closes what is open.
void CstFile::closeHandle() {
	if (mStream) FinishStreaming();
	mDiskFile = false;
	if (!mHandle) return;
	mBackEnd(std::exchange(mHandle, nullptr), base::kCodeClose, 0, 0, 0, nullptr);
	notify(kClosed);
}

unsigned long CstFile::Write(const void* data, unsigned long n) {
	if (!mHandle || (mStreamFlags & kReadStreaming)) return 0;
	auto* bytes = const_cast<void*>(data); // one pointer serves both directions
	notify(kWrite, n, bytes);
	return writeStreaming() ? mStream->write(data, n) : callBackEnd(base::kCodeWrite, n, bytes);
}

unsigned long CstFile::Read(void* buffer, unsigned long n) {
	if (!mHandle || writeStreaming()) return 0;
	notify(kRead, n, buffer);
	return callBackEnd(base::kCodeRead, n, buffer);
}

unsigned long CstFile::Seek(long offset, unsigned long origin) { return static_cast<uint32_t>(Seek64(offset, origin)); }

long long CstFile::Seek64(long long offset, unsigned long origin) {
	if (!mHandle) return 0;
	notify(kSeek, origin, asPointer(offset));
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

const estFILE_STREAM* CstFile::GetStreamInfo() const { return mStream; }

void CstFile::SetCallBack(CstFileCallBack callBack) {
	mCallBack = callBack;
	if (mStream) mStream->setCallBack(callBack);
}

void CstFile::SetWriteStreamPackSize(unsigned long bytes) {
	if (bytes == 0 || bytes > UINT32_MAX) return;
	mWritePackSize = static_cast<uint32_t>(bytes);
	if (mStream) mStream->setPackSize(mWritePackSize);
}

void CstFile::notify(unsigned long code, unsigned long a, void* p) {
	if (mCallBack) mCallBack(this, code, 0, a, p);
}

/// The open file's back end; while a writer streams, one call at a time.
unsigned long CstFile::callBackEnd(unsigned long code, unsigned long b, void* p) const {
	return mStream ? mStream->callBackEnd(code, b, p) : mBackEnd(mHandle, code, 0, b, 0, p);
}

unsigned long CstFile::PrepareForStreaming(unsigned long bufferKiB, unsigned long count, unsigned long mode) {
	notify(kPrepareBegin);
	if (mStream) FinishStreaming();
	auto* stream = new (std::nothrow) base::FileStream(this, mBackEnd, mHandle, mCallBack, mWritePackSize);
	const bool writes = (mode & kWriteStreaming) != 0;
	if (!stream || !stream->allocate(bufferKiB, count) || (writes && !stream->startWriter())) {
		delete stream;
		return kFileNoMemory;
	}
	mStream = stream;
	mStreamFlags = static_cast<uint32_t>(mode & (kReadStreaming | kWriteStreaming));
	notify(kPrepareEnd);
	return 0;
}

unsigned long CstFile::FinishStreaming() {
	notify(kFinishBegin);
	const auto result = endStreaming();
	notify(kFinishEnd);
	return result;
}

unsigned long CstFile::endStreaming() {
	auto* stream = std::exchange(mStream, nullptr);
	const bool writes = writeStreaming();
	mStreamFlags = 0;
	if (!stream) return 0;
	if (writes) {
		stream->next();
		if (!stream->stopWriter()) {
			mHandle = nullptr; // the writer closes it
			mDiskFile = false;
			notify(kClosed);
			return kQorFailure;
		}
		stream->writePending();
	}
	const bool complete = stream->mLostBytes == 0;
	delete stream;
	return complete ? kQorSuccess : kQorFailure;
}

estFILE_STREAM_BUFFER* CstFile::FlushToNextBuffer() { return mStream ? mStream->next() : nullptr; }

unsigned long CstFile::FlushBuffer(estFILE_STREAM_BUFFER* buffer) {
	if (!mStream || !mStream->owns(buffer)) return kQorFailure;
	if (base::FileStream::isWriters(*buffer)) return kQorSuccess;
	return mStream->flush(*buffer) ? kQorSuccess : kQorFailure;
}

unsigned long CstFile::ResetBuffer(estFILE_STREAM_BUFFER* buffer) {
	if (!mStream || !mStream->owns(buffer) || base::FileStream::isWriters(*buffer)) return kQorFailure;
	mStream->markFree(*buffer);
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
