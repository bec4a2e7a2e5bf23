#pragma once

#include <string>
#include <windows.h>

/// Another run of a program.
class ChildProcess {
public:
	ChildProcess(const std::string& program, const std::string& first, const std::string& second) {
		std::string line = "\"" + program + "\" " + first + " \"" + second + "\"";
		STARTUPINFOA startup = {};
		startup.cb = sizeof(startup);
		CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &mProcess);
	}
	/// Ends it at once, as a crash would. @return whether it was still running.
	bool kill() {
		if (!mProcess.hProcess) return false;
		constexpr DWORD kKilled = 99;
		TerminateProcess(mProcess.hProcess, kKilled);
		WaitForSingleObject(mProcess.hProcess, INFINITE);
		DWORD code = 0;
		GetExitCodeProcess(mProcess.hProcess, &code);
		CloseHandle(mProcess.hThread);
		CloseHandle(mProcess.hProcess);
		return code == kKilled;
	}

private:
	PROCESS_INFORMATION mProcess = {};
};
