#include <gtest/gtest.h>

#include <qor/platform/faults.h>
#include <qor/plugins/dynamic_module_list.h>
#include <qor/plugins/plugin_manager.h>
#include <qor/plugins/time_capture.h>
#include <qor/plugins/video_capture.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>

/// Refuses the n-th allocation of this thread, by `new` or through the seam.
namespace {

thread_local int refused = 0; // counts down; 0: none
bool refuse() { return refused > 0 && --refused == 0; }

} // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return refuse() ? nullptr : std::malloc(size); }
void* operator new(std::size_t size) {
	if (void* block = operator new(size, std::nothrow)) return block;
	throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }

namespace {

int device(void*, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	if (code == qorSIO_OBJ_INFORMATION) std::strcpy(static_cast<char*>(p1), "!siotype,CqorSIO_VideoCap");
	if (code != qorSIO_OBJ_COMMAND) return 0;
	const char* command = static_cast<char*>(p1);
	if (std::strncmp(command, "set,", 4) == 0) command += 4;
	std::strcpy(std::strchr(std::strcpy(static_cast<char*>(p2), command), ','), ",0"); // whatever it is
	return 0;
}

std::unique_ptr<CqorSIO_VideoCap> made;

int create(void*, unsigned long, unsigned long, unsigned long, void* p1, void*) {
	made.reset(new (std::nothrow) CqorSIO_VideoCap);
	static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1)->mObject = made.get();
	return 0;
}

} // namespace

TEST(RefusedMemory, EndsAsTheStatedFailure) {
	const auto accept = [](CqorSIO_Object& object) { return object.piAccept(&made, &device); };
	const std::pair<const char*, std::function<int()>> groups[] = {
	    {"camera",
	        [&] {
		        CqorSIO_VideoCap camera;
		        return accept(camera) | camera.cmdOpen() | camera.SetFrameInfoRingSize(4) | camera.cmdStart() |
		               camera.SetIntervalRingSize(9) | camera.setX(5) | camera.cmdStop();
	        }},
	    {"offer",
	        [&] {
		        CqorSIO_PIManager manager;
		        manager.SetUserCallBack(&create, nullptr);
		        manager.Create(QOR_BAD_PLUGINS, 0);
		        for (int i = 0; auto* plugIn = manager.mPIList.Get(i); ++i)
			        if (const int answer = manager.manCB(
			                plugIn, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &made, reinterpret_cast<void*>(&device));
			            answer != 0)
				        return answer;
		        return manager.mPIList.GetCount() == 2 ? 0 : 1;
	        }},
	    {"modules",
	        [&] {
		        CqorDynamicModuleList list;
		        list.AddByFolder(QOR_BAD_PLUGINS, "so", 0), list.AddByFolder(QOR_BAD_PLUGINS, "dll", 0);
		        list.AddByQORPlugInsFolder("dll", 0);
		        return list.LoadAll() == 3 ? 0 : 1;
	        }},
	};
	for (const auto& [name, run] : groups) {
		SCOPED_TRACE(name);
		EXPECT_EQ(run(), 0);
		int failures = 0;
		bool reached = true;
		for (int nth = 1; reached; ++nth) {
			refused = nth;
			failures += run() != 0;
			reached = std::exchange(refused, 0) == 0;
		}
		reached = true;
		for (int nth = 1; reached; ++nth) {
			platform::armFault(platform::FaultPoint::memory, nth);
			failures += run() != 0;
			reached = platform::faultCalls(platform::FaultPoint::memory) >= nth;
			platform::armFault(platform::FaultPoint::memory, 0);
		}
		EXPECT_GT(failures, 0);
		EXPECT_EQ(run(), 0) << "and all is well again";
		made.reset();
	}
}
