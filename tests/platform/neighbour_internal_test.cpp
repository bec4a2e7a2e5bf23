#include "process_roles.h"
#include "qor/platform/clock.h"
#include "qor/platform/file.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"
#include "wait_support.h"

#include <atomic>
#include <functional>
#include <random>
#include <thread>

// Objects beside other processes and users of Linux, who fork, are killed, fill the memory or
// are hostile.
#if __has_include(<sys/wait.h>)
#include "qor/platform/posix/named_segment_internal.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace platform {
namespace {

namespace fs = std::filesystem;

/// The child runs `part`, whose result is its exit code, and ends as programs do.
pid_t forkTo(const std::function<int()>& part) {
	std::fflush(nullptr);
	const pid_t child = fork();
	if (child == 0) std::exit(part());
	return child;
}

int resultOf(pid_t child) {
	int status = -1;
	return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const test_support::RoleOf gOpener("opener", [](const std::string& name) { return openMutex(name.c_str()) ? 0 : 1; });

/// Goes to the background: its child goes on with the handles and takes the mutex.
int playDaemon(const std::string& name) {
	const WaitHandle mutex = createMutex(false, (name + "m").c_str());
	const WaitHandle ready = openEvent((name + "r").c_str()), end = openEvent((name + "e").c_str());
	if (fork() > 0) return closeHandle(mutex) ? 0 : 1;
	if (wait(mutex, 0) != kWaitAcquired || !setEvent(ready)) return 2;
	wait(end, kLong);
	return releaseMutex(mutex) && closeHandle(mutex) && closeHandle(ready) && closeHandle(end) ? 0 : 3;
}
const test_support::RoleOf gDaemon("daemon", playDaemon);

TEST(Fork, AChildIsAProcessOfItsOwn) {
	const std::string name = uniqueName();
	const Owned mutex(createMutex(true, name.c_str())), own(createMutex(true)),
	    semaphore(createSemaphore(1, 2, (name + "s").c_str()));
	const pid_t child = forkTo([&] {
		if (wait(mutex.get(), 20) != kWaitTimeout || releaseMutex(mutex.get())) return 1; // the parent's
		if (!Owned(openMutex(name.c_str()))) return 2;
		if (!releaseMutex(own.get()) || releaseMutex(own.get())) return 3; // its own copy
		if (wait(semaphore.get(), 0) != kWaitAcquired || !releaseSemaphore(semaphore.get(), 2, nullptr)) return 4;
		return closeHandle(mutex.get()) && wait(mutex.get(), 0) == kWaitFailed ? 0 : 5;
	});
	EXPECT_EQ(resultOf(child), 0);
	EXPECT_EQ(test_support::runRole("opener", name), 0); // the child's end took nothing away
	EXPECT_TRUE(wait(semaphore.get(), 0) == kWaitAcquired && wait(semaphore.get(), 0) == kWaitAcquired);
	EXPECT_TRUE(releaseMutex(own.get()) && releaseMutex(mutex.get()) && !releaseMutex(mutex.get()));
}

TEST(Fork, AParentThatEndsLeavesItsObjectsToTheChild) {
	const std::string name = uniqueName();
	const Owned ready(createEvent(true, false, (name + "r").c_str())),
	    end(createEvent(true, false, (name + "e").c_str()));
	ASSERT_EQ(test_support::runRole("daemon", name), 0);
	ASSERT_EQ(wait(ready.get(), kLong), kWaitAcquired);
	const Owned mutex(openMutex((name + "m").c_str()));
	ASSERT_TRUE(mutex);
	EXPECT_EQ(wait(mutex.get(), 100), kWaitTimeout);
	setEvent(end.get());
	EXPECT_EQ(wait(mutex.get(), kLong), kWaitAcquired);
}

struct Shared {
	std::atomic<uint32_t> inside, entries, faults;
};

int enterForEver(const std::string& name, Shared& shared) {
	const Owned mutex(createMutex(false, name.c_str()));
	for (;;) {
		const uint32_t result = wait(mutex.get(), kLong);
		const uint32_t before = shared.inside.exchange(processId());
		// Who was killed inside left it abandoned; between the two words it may have been outside.
		if (result > kWaitAbandoned || (before != 0 && result != kWaitAbandoned)) ++shared.faults;
		++shared.entries;
		if (shared.inside.exchange(0) != processId()) ++shared.faults;
		if (!releaseMutex(mutex.get())) ++shared.faults;
	}
}

TEST(Killed, OwnersLeaveAMutexToExactlyOne) {
	const std::string name = uniqueName();
	const Owned kept(createMutex(false, name.c_str()));
	void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	ASSERT_NE(memory, MAP_FAILED);
	auto& shared = *new (memory) Shared{};
	std::vector<pid_t> children;
	const auto start = [&] { return forkTo([&] { return enterForEver(name, shared); }); };
	for (int i = 0; i < 12; ++i) children.push_back(start());
	std::minstd_rand chance(1);
	const int64_t end = counter() + static_cast<int64_t>(3 * counterFrequency());
	for (int kills = 0; kills < 1500 && counter() < end; ++kills) {
		pid_t& child = children[chance() % children.size()];
		kill(child, SIGKILL);
		EXPECT_EQ(resultOf(child), -1);
		child = start();
	}
	for (const pid_t child : children) {
		kill(child, SIGKILL);
		resultOf(child);
	}
	EXPECT_LE(wait(kept.get(), kLong), kWaitAbandoned);
	EXPECT_GT(shared.entries, 1000u);
	EXPECT_EQ(shared.faults, 0u);
	munmap(memory, sizeof(Shared));
}

TEST(Killed, AReleaserLeavesNobodyAsleep) {
	const std::string name = uniqueName();
	const Owned semaphore(createSemaphore(0, 1, name.c_str()));
	posix::NamedSegment other;
	bool existed = false;
	ASSERT_TRUE(other.open(
	    name.c_str(), true, [](posix::SharedState&) {}, existed));
	std::atomic<bool> waits{false};
	std::jthread waiter([&] {
		waits = true;
		EXPECT_EQ(wait(semaphore.get(), kInfinite), kWaitAcquired);
	});
	EXPECT_TRUE(test_support::eventually([&] { return waits && other.state()->sleepers == 1; }));
	other.state()->word = 1; // and no wake-up follows
}

/// The object's file in the shared-memory file system.
std::string fileOf(const std::string& name) {
	std::string found;
	const auto files = [] { return fs::directory_iterator("/dev/shm"); };
	std::vector<fs::path> before(begin(files()), end(files()));
	const Owned mutex(createMutex(false, name.c_str()));
	for (const auto& entry : files()) {
		if (std::find(before.begin(), before.end(), entry.path()) == before.end()) found = entry.path();
	}
	EXPECT_EQ(fs::status(found).permissions(), fs::perms{0600});
	return found;
}

TEST(Hostile, FilesOfOthersAreRefusedAndLeftAlone) {
	const std::string name = uniqueName(), path = fileOf(name), far = "/dev/shm/" + name;
	EXPECT_FALSE(fs::exists(path));
	const std::string plants[] = {"touch $ && chmod 666 $", "mkfifo -m 600 $", "ln -s " + far + " $", "mkdir $",
	    "truncate -s 4096 $ && chmod 600 $ && chown 65534 $"};
	for (std::string plant : plants) {
		if (plant.find("chown") != plant.npos && geteuid() != 0) continue; // only root can give files away
		for (size_t at; (at = plant.find('$')) != plant.npos;) plant.replace(at, 1, path);
		ASSERT_EQ(std::system(plant.c_str()), 0);
		EXPECT_TRUE(!createMutex(false, name.c_str()) && !openMutex(name.c_str())) << plant;
		EXPECT_TRUE((fs::is_symlink(path) || fs::exists(path)) && !fs::exists(far)) << plant;
		fs::remove(path);
	}
}

TEST(Hostile, ALockThatIsHeldDelaysNobodyElse) {
	const std::string name = uniqueName(), other = uniqueName(), path = fileOf(name);
	const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_len = 1;
	ASSERT_EQ(fcntl(file, F_OFD_SETLK, &lock), 0);
	std::atomic<bool> opened{false};
	std::jthread waiter([&] {
		EXPECT_TRUE(Owned(createMutex(false, name.c_str()))) << lastError();
		opened = true;
	});
	sleepMs(50);
	for (int i = 0; i < 100; ++i) EXPECT_TRUE(Owned(createMutex(false, other.c_str())));
	EXPECT_FALSE(opened);
	close(file);
}

TEST(Hostile, AnotherProcessNumberingSharesNothing) {
	if (geteuid() != 0) GTEST_SKIP() << "only root makes process numberings";
	const std::string name = uniqueName();
	const Owned mutex(createMutex(false, name.c_str()));
	const pid_t child = forkTo([&]() -> int { // both end without a leak check, which cannot start its thread there
		if (unshare(CLONE_NEWPID) != 0) return 77;
		std::_Exit(resultOf(
		    forkTo([&]() -> int { std::_Exit(WEXITSTATUS(test_support::runRole("opener", name)) == 1 ? 0 : 1); })));
	});
	const int result = resultOf(child);
	if (result == 77) GTEST_SKIP() << "process numberings cannot be made here";
	EXPECT_EQ(result, 0);
}

TEST(Scarce, AFullSharedMemoryIsAFailure) {
	const pid_t child = forkTo([] {
		if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
		    mount("none", "/dev/shm", "tmpfs", 0, "size=8k") != 0) {
			return 77;
		}
		test_support::writeFile("/dev/shm/full", std::string(100000, 'x'));
		if (createMutex(false, "full") || lastError() != 112) return 1;
		fs::remove("/dev/shm/full");
		if (!Owned(createMutex(false, "full"))) return 2;
		return fs::is_empty("/dev/shm") ? 0 : 3;
	});
	const int result = resultOf(child);
	if (result == 77) GTEST_SKIP() << "only root mounts file systems";
	EXPECT_EQ(result, 0);
}

TEST(Hostile, PipesAreNotWaitedFor) {
	test_support::TempFolder folder;
	const std::string pipe = folder.path("pipe");
	ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
	for (const uint32_t access : {kAccessRead, kAccessWrite, kAccessRead | kAccessWrite}) {
		for (const auto disposition : {Disposition::openExisting, Disposition::openAlways, Disposition::createAlways}) {
			EXPECT_EQ(fileSystem().open(pipe.c_str(), {disposition, access}), nullptr);
			EXPECT_EQ(lastError(), 5u);
		}
	}
	EXPECT_EQ(fileSystem().open("/dev/tty", {}), nullptr);
	EXPECT_NE(fileSystem().open("/dev/null", {Disposition::createAlways, kAccessWrite}), nullptr);
}

} // namespace
} // namespace platform
#else
TEST(Neighbours, OfLinux) { GTEST_SKIP() << "fork, signals and shared-memory files are those of Linux"; }
#endif
