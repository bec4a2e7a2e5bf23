#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace variable_sets {

inline constexpr size_t kIdentifierSize = 32;
inline constexpr int32_t kNone = -1;

/// The records of a block that start with an identifier: definitions or descriptors.
struct Records {
	const unsigned char* first = nullptr;
	size_t stride = 0;
	int32_t count = 0;

	const unsigned char* at(int32_t place) const { return first + static_cast<size_t>(place) * stride; }
};

/// An identifier that is sought, or that a record has. One that does not fit into a record
/// (or has no terminator there) matches nothing.
class Identifier {
public:
	explicit Identifier(const char* text);

	bool fits() const { return mBytes != 0; }
	bool matches(const unsigned char* record) const;
	/// The bytes up to the end of a record's field, zeros behind the terminator.
	const uint32_t* words() const { return mWords; }
	/// The first of the records that matches, by a walk.
	int32_t walk(const Records& records) const;

private:
	uint32_t mWords[kIdentifierSize / sizeof(uint32_t)] = {};
	size_t mBytes = 0; // with the terminator; 0 when it does not fit
};

/// Finds the first record with an identifier, in a hash table with open addressing.
///
/// The hash is a sum of the identifier's words, each multiplied by a key of 64 bits, of which
/// the upper half counts. The keys are drawn for each table, so that nobody who sends a block
/// can choose identifiers that fall on each other and make every lookup long.
class IdentifierIndex {
public:
	struct Release {
		void operator()(IdentifierIndex* index) const { release(index); }
	};
	using Owner = std::unique_ptr<IdentifierIndex, Release>;

	/// Sets with fewer records are walked faster than hashed.
	static constexpr int32_t kWorthwhile = 12;

	/// @return null without memory.
	static Owner make(const Records& records);
	static void release(IdentifierIndex* index);

	/// @return the place of the first record with that identifier, compared with the record;
	///         `kNone` for one that was not there when the index was made.
	int32_t find(const Records& records, const Identifier& identifier) const;
	/// Enters a record that was appended. @return false when the table is full.
	bool add(const Records& records, int32_t place);

private:
	struct Slot {
		uint32_t hash;
		int32_t place; // plus 1; 0: empty
	};

	explicit IdentifierIndex(int bits);
	uint32_t hash(const Identifier& identifier) const;
	Slot* slots() { return reinterpret_cast<Slot*>(this + 1); }
	const Slot* slots() const { return reinterpret_cast<const Slot*>(this + 1); }

	uint64_t mKeys[kIdentifierSize / sizeof(uint32_t)];
	uint32_t mMask; // slots - 1; the slots stand behind the object
	int mShift;     // of a hash to a slot
	uint32_t mUsed = 0;
};

/// The first record with that identifier by index (may be null) or walk. What the index does
/// not know is walked for: hosts can write into blocks.
int32_t find(const Records& records, const IdentifierIndex* index, const char* identifier);

} // namespace variable_sets
