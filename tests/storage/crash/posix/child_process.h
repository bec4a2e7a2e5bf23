#pragma once

#include <csignal>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// Another run of a program.
class ChildProcess {
public:
	ChildProcess(const std::string& program, const std::string& first, const std::string& second) {
		std::string texts[] = {program, first, second};
		char* arguments[] = {texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
		if (posix_spawn(&mId, program.c_str(), nullptr, nullptr, arguments, environ) != 0) mId = -1;
	}
	/// Ends it at once, as a crash would. @return whether it was still running.
	bool kill() {
		if (mId < 0 || ::kill(mId, SIGKILL) != 0) return false;
		int status = 0;
		waitpid(mId, &status, 0);
		return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
	}

private:
	pid_t mId = -1;
};
