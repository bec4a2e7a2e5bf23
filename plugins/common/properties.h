#pragma once

#include "command.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace plugin {

/// The keys of a device with what reads and what sets them.
class Properties {
public:
	using Getter = std::function<std::string()>;
	using Setter = std::function<Status(const std::string&)>;

	void add(const std::string& key, Getter getter, Setter setter = nullptr) {
		mEntries[key] = {std::move(getter), std::move(setter)};
	}

	void addText(const std::string& key, const std::string& text) {
		add(key, [text] { return quoted(text); });
	}

	template <class Number>
	void addNumber(const std::string& key, const Number& value, const Setter& setter = nullptr) {
		add(
		    key, [&value] { return number(value); }, setter);
	}

	/// A setting of its own between two limits.
	template <class Number>
	void addSetting(const std::string& key, Number& value, Number minimum, Number maximum) {
		addNumber(key, value, [&value, minimum, maximum](const std::string& text) {
			Number wanted{};
			if (!parseNumber(text, &wanted) || !(wanted >= minimum && wanted <= maximum)) return kBadValue;
			value = wanted;
			return kOk;
		});
	}

	template <class Number>
	void addConstant(const std::string& key, Number value) {
		add(key, [value] { return number(value); });
	}

	/// A second name for a key.
	void addAlias(const std::string& alias, const std::string& key) { mEntries[alias] = mEntries.at(key); }

	std::optional<std::string> get(const std::string& key) const {
		const auto entry = mEntries.find(key);
		if (entry == mEntries.end() || !entry->second.getter) return std::nullopt;
		return entry->second.getter();
	}

	Status set(const std::string& key, const std::string& value) const {
		const auto entry = mEntries.find(key);
		return entry == mEntries.end() || !entry->second.setter ? kUnknown : entry->second.setter(value);
	}

private:
	static std::string number(int value) { return std::to_string(value); }
	static std::string number(double value) { return decimal(value); }

	struct Entry {
		Getter getter;
		Setter setter;
	};
	std::map<std::string, Entry> mEntries;
};

} // namespace plugin
