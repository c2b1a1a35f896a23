// Storage behind a package: the arena that holds what the parser builds, and the section index.
#pragma once

#include <uci.h>

#include <cstddef>
#include <string_view>

namespace uci_impl {

// Large blocks (128 KiB and more) are mapped directly and their pages faulted in a range at a time
// ("populated") just before they are used: taking the first-touch faults one page at a time costs much
// more, and the heap would hand such blocks back to the system on free anyway, so that every load of a
// large package would fault its memory in again. Smaller blocks come from the heap.
constexpr size_t kMappedBlock = 128 * 1024;
void *block_alloc(size_t size, bool populate_all);  // uninitialised (zero when mapped); raises UCI_ERR_MEM
void block_free(void *p, size_t size);
void block_populate(void *p, size_t size);  // best effort

// Bump allocation for the objects a parse creates: a package loaded from a file lies in a few contiguous
// blocks in file order instead of one heap allocation per name, value and element. Nothing is given back
// one by one: objects replaced or deleted later just stay until the whole package is freed. The first
// block is sized from a hint (the parser passes the file size), later ones double; a mapped block is
// populated step by step as it fills, so an overestimated hint costs address space only.
class Arena {
public:
	explicit Arena(size_t hint);
	~Arena();
	Arena(const Arena &) = delete;
	Arena &operator=(const Arena &) = delete;

	void *alloc(size_t size, size_t align);  // uninitialised; raises UCI_ERR_MEM
	char *dup(std::string_view s);
	bool owns(const void *p) const;

private:
	struct Block {
		Block *next;
		size_t size;  // of the whole block, this header included
	};
	void grow(size_t need);

	Block *blocks_ = nullptr;  // newest first
	char *cur_ = nullptr, *end_ = nullptr;
	char *ready_ = nullptr;  // end of the populated part of the newest block
	size_t next_size_;
};

// The sections of a package by name, duplicates included: open addressing with linear probing over
// (hash, section) slots, so a probe compares stored hashes and only touches a section's name on a match.
class SectionIndex {
public:
	SectionIndex() = default;
	~SectionIndex();
	SectionIndex(const SectionIndex &) = delete;
	SectionIndex &operator=(const SectionIndex &) = delete;

	// Makes room for one more entry, so that the following insert cannot fail.
	void reserve_one();
	void insert(uci_section *s);  // call reserve_one first
	void remove(uci_section *s);  // s must be indexed under its current name
	// The section of that name; when several have it, *several is set and the first one found is given.
	uci_section *find(std::string_view name, bool *several) const;

private:
	struct Slot {
		size_t hash;
		uci_section *s;  // nullptr: empty
	};
	static size_t hash_of(std::string_view name);
	void rehash(size_t capacity);

	Slot *slots_ = nullptr;
	size_t capacity_ = 0;  // a power of two, or 0
	size_t count_ = 0;
};

}  // namespace uci_impl
