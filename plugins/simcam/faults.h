#pragma once

#include "../common/command.h"

#include <string>
#include <string_view>
#include <vector>

/// What the simulated camera does wrong on request, set through the key "!fault" (also the
/// text feature "Fault"): faults joined by ';', each a name with an argument behind ':'.
///
///     none             no faults
///     refuse:<op>      the operation is answered with status 5 ("refuse:start")
///     drop:<n>         every n-th frame is lost: its number never arrives
///     corrupt:<n>      one bit of every n-th frame is wrong
///     delay:<ms>       a frame is reported this much later than it was taken
///     stall:<n>        no frames any more behind the n-th, until the fault is taken off
///     burst:<n>        n frames come together
///     wrongsize:<n>    the frame information tells of n bytes fewer
///     badreply         replies without the key
///     emptyreply       replies without any text
///     longreply        replies that fill the buffer and have no end
///     noreply          commands are answered with a failure
///     offline, online  not a lasting fault: the event is reported at once
///
/// The key itself is always answered properly.
struct Faults {
	enum class Reply { good, bad, empty, endless, none };

	std::vector<std::string> refused;
	int drop = 0;
	int corrupt = 0;
	int delay = 0;
	int stall = -1;
	int burst = 1;
	int wrongSize = 0;
	Reply reply = Reply::good;
	int event = 0; // offline or online, to be reported
	std::string text = "none";

	/// @return false for a text with an unknown fault or a wrong argument; nothing changes then.
	static bool parse(std::string_view text, Faults* out) {
		Faults faults;
		faults.text = text;
		while (!text.empty()) {
			const auto end = text.find(';');
			if (!faults.parseOne(text.substr(0, end))) return false;
			text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
		}
		if (faults.text.empty()) faults.text = "none";
		*out = faults;
		return true;
	}

	bool refuses(const std::string& operation) const {
		for (const auto& name : refused)
			if (name == operation) return true;
		return false;
	}

	static bool hits(int every, long long number) { return every > 0 && number % every == every - 1; }

private:
	bool parseOne(std::string_view fault) {
		const auto colon = fault.find(':');
		const auto name = fault.substr(0, colon);
		const auto argument = colon == std::string_view::npos ? std::string_view() : fault.substr(colon + 1);
		const struct {
			const char* name;
			int* value;
			int minimum;
			int maximum;
		} numbers[] = {
		    {"drop", &drop, 1, 1000000000},
		    {"corrupt", &corrupt, 1, 1000000000},
		    {"delay", &delay, 0, 60000},
		    {"stall", &stall, 0, 1000000000},
		    {"burst", &burst, 1, 100000},
		    {"wrongsize", &wrongSize, 0, 1000000000},
		};
		for (const auto& number : numbers) {
			if (name != number.name) continue;
			return plugin::parseNumber(argument, number.value) && *number.value >= number.minimum &&
			       *number.value <= number.maximum;
		}
		if (name == "refuse" && !argument.empty())
			refused.emplace_back(argument);
		else if (name == "badreply")
			reply = Reply::bad;
		else if (name == "emptyreply")
			reply = Reply::empty;
		else if (name == "longreply")
			reply = Reply::endless;
		else if (name == "noreply")
			reply = Reply::none;
		else if (name == "offline")
			event = qorSIO_EVENT_OFFLINE;
		else if (name == "online")
			event = qorSIO_EVENT_ONLINE;
		else
			return name == "none";
		return true;
	}
};
