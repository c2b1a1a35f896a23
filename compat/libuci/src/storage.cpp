// The arena and the section index of a package.
#include "storage.h"

#include "internal.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace uci_impl {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kPopulateStep = 256 * 1024;

size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }

}  // namespace

void *block_alloc(size_t size, bool populate_all)
{
	void *p;
	if (size >= kMappedBlock) {
		int flags = MAP_PRIVATE | MAP_ANONYMOUS | (populate_all ? MAP_POPULATE : 0);
		p = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0);
		if (p == MAP_FAILED)
			p = nullptr;
	} else {
		p = malloc(size);
	}
	if (!p)
		fail(UCI_ERR_MEM);
	return p;
}

void block_free(void *p, size_t size)
{
	if (!p)
		return;
	if (size >= kMappedBlock)
		munmap(p, size);
	else
		free(p);
}

void block_populate(void *p, size_t size)
{
#ifdef MADV_POPULATE_WRITE
	// Kernels without it refuse; the pages then fault in on first use.
	madvise(p, size, MADV_POPULATE_WRITE);
#else
	(void)p;
	(void)size;
#endif
}

// ---- Arena ----

Arena::Arena(size_t hint) : next_size_(round_up(hint < kPage ? kPage : hint, kPage)) {}

Arena::~Arena()
{
	while (blocks_) {
		Block *b = blocks_;
		blocks_ = b->next;
		block_free(b, b->size);
	}
}

void Arena::grow(size_t need)
{
	size_t size = next_size_;
	if (size < need + sizeof(Block))
		size = round_up(need + sizeof(Block), kPage);
	Block *b = static_cast<Block *>(block_alloc(size, false));
	b->next = blocks_;
	b->size = size;
	blocks_ = b;
	cur_ = reinterpret_cast<char *>(b + 1);
	end_ = reinterpret_cast<char *>(b) + size;
	ready_ = size >= kMappedBlock ? reinterpret_cast<char *>(b) : end_;
	// The second block matches the first (the hint may just fall short); after that the total doubles.
	if (b->next)
		next_size_ += size;
}

void *Arena::alloc(size_t size, size_t align)
{
	uintptr_t at = (reinterpret_cast<uintptr_t>(cur_) + align - 1) & ~(uintptr_t{align} - 1);
	if (!cur_ || at + size > reinterpret_cast<uintptr_t>(end_)) {
		grow(size + align);
		at = (reinterpret_cast<uintptr_t>(cur_) + align - 1) & ~(uintptr_t{align} - 1);
	}
	cur_ = reinterpret_cast<char *>(at + size);
	if (cur_ > ready_) {
		size_t missing = static_cast<size_t>(cur_ - ready_);
		size_t step = missing > kPopulateStep ? round_up(missing, kPage) : kPopulateStep;
		if (step > static_cast<size_t>(end_ - ready_))
			step = static_cast<size_t>(end_ - ready_);
		block_populate(ready_, step);
		ready_ += step;
	}
	return reinterpret_cast<void *>(at);
}

char *Arena::dup(std::string_view s)
{
	char *r = static_cast<char *>(alloc(s.size() + 1, 1));
	memcpy(r, s.data(), s.size());
	r[s.size()] = 0;
	return r;
}

bool Arena::owns(const void *p) const
{
	auto at = reinterpret_cast<uintptr_t>(p);
	for (const Block *b = blocks_; b; b = b->next) {
		auto start = reinterpret_cast<uintptr_t>(b);
		if (at >= start && at < start + b->size)
			return true;
	}
	return false;
}

// ---- SectionIndex ----

SectionIndex::~SectionIndex() { block_free(slots_, capacity_ * sizeof(Slot)); }

size_t SectionIndex::hash_of(std::string_view name) { return std::hash<std::string_view>{}(name); }

void SectionIndex::rehash(size_t capacity)
{
	// Slots are spread over the whole table: populate it at once.
	size_t bytes = capacity * sizeof(Slot);
	Slot *slots = static_cast<Slot *>(block_alloc(bytes, true));
	if (bytes < kMappedBlock)
		memset(slots, 0, bytes);
	size_t mask = capacity - 1;
	for (size_t i = 0; i < capacity_; i++) {
		if (!slots_[i].s)
			continue;
		size_t j = slots_[i].hash & mask;
		while (slots[j].s)
			j = (j + 1) & mask;
		slots[j] = slots_[i];
	}
	block_free(slots_, capacity_ * sizeof(Slot));
	slots_ = slots;
	capacity_ = capacity;
}

// At most half full, so that probe runs stay short.
void SectionIndex::reserve_one()
{
	if ((count_ + 1) * 2 > capacity_)
		rehash(capacity_ ? capacity_ * 2 : 16);
}

void SectionIndex::insert(uci_section *s)
{
	size_t h = hash_of(s->e.name);
	size_t mask = capacity_ - 1;
	size_t i = h & mask;
	while (slots_[i].s)
		i = (i + 1) & mask;
	slots_[i] = Slot{h, s};
	count_++;
}

void SectionIndex::remove(uci_section *s)
{
	if (!capacity_)
		return;
	size_t mask = capacity_ - 1;
	size_t hole = hash_of(s->e.name) & mask;
	while (slots_[hole].s != s) {
		if (!slots_[hole].s)
			return;
		hole = (hole + 1) & mask;
	}
	// Close the gap: move back every later entry of the run whose home slot is not after the hole.
	for (size_t j = (hole + 1) & mask; slots_[j].s; j = (j + 1) & mask) {
		size_t home = slots_[j].hash & mask;
		bool stays = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
		if (!stays) {
			slots_[hole] = slots_[j];
			hole = j;
		}
	}
	slots_[hole] = Slot{0, nullptr};
	count_--;
}

uci_section *SectionIndex::find(std::string_view name, bool *several) const
{
	*several = false;
	if (!capacity_)
		return nullptr;
	size_t h = hash_of(name);
	size_t mask = capacity_ - 1;
	uci_section *found = nullptr;
	for (size_t i = h & mask; slots_[i].s; i = (i + 1) & mask) {
		if (slots_[i].hash != h || name != slots_[i].s->e.name)
			continue;
		if (found) {
			*several = true;
			return found;
		}
		found = slots_[i].s;
	}
	return found;
}

}  // namespace uci_impl
