// Host data dictionaries: typed values by key, in insertion order. Copy on write is the
// caller's part (it copies a shared dictionary before it writes), so a dictionary is never
// written while another holder reads it and readers need no lock.
//
// Lookups go through a hash index over entry positions, so that a lookup neither scans nor
// builds ids; iterators keep plain positions because the entries stay in insertion order.
#include <bit>
#include <memory>
#include <vector>

#include "quorv/systemallocator.h"
#include "services_impl.h"

namespace quorv {

struct DataDictionaryObject {
    struct KeyFree {
        void operator()(char* p) const { SystemInterface::Free(p); }
    };
    struct Entry {
        // On the heap: key ids handed out stay put when entries move. Null for an integer key.
        std::unique_ptr<char, KeyFree> key;
        UInt word = 0;   // literal id word of the key, owned-text bit clear
        Int number = 0;  // the integer key, when there is no text
        Data value;

        DataDictionaryKey Id() const {
            if (!key) return DataDictionaryKey(number);
            return DataDictionaryKey(LiteralId(key.get(), word));
        }
    };
    // Memory of the host's allocator, where it is counted (and can be made to fail in tests).
    std::vector<Entry, SystemAllocator<Entry>> entries;
    // Open addressing with linear probing: 0 is a free slot, else an entry position plus one.
    // A power of two, at most half full; empty only while there are no entries. Even the
    // smallest dictionaries get one: measured, a scan of two entries is no faster.
    std::vector<UInt32, SystemAllocator<UInt32>> index;
    bool immortal = false;  // the shared empty dictionary
};

}  // namespace quorv

namespace quorv::host {

namespace {

using Entry = DataDictionaryObject::Entry;

// Fibonacci hashing: the product's top bits pick the slot. Id keys hash by their literal id
// word (a hash already, no text read), integer keys by their number; the multiplication spreads
// either over the top bits.
UInt MixedHash(UInt word) { return word * 0x9E3779B97F4A7C15ull; }
UInt EntryHash(const Entry& e) { return MixedHash(e.key ? e.word : static_cast<UInt>(e.number)); }
size_t FirstSlot(UInt hash, size_t capacity) {
    return static_cast<size_t>(hash >> (64 - std::countr_zero(capacity)));
}

// Places position `p` (zero-based) in an index that has a free slot for it. No allocation.
void IndexInsert(UInt32* slots, size_t capacity, UInt hash, size_t p) {
    size_t s = FirstSlot(hash, capacity);
    while (slots[s] != 0) s = (s + 1) & (capacity - 1);
    slots[s] = static_cast<UInt32>(p + 1);
}

// Refills `slots` from the entries (after positions moved, or into a larger index).
void IndexFill(const DataDictionaryObject& d, UInt32* slots, size_t capacity) {
    std::fill(slots, slots + capacity, UInt32(0));
    for (size_t p = 0; p < d.entries.size(); ++p) {
        IndexInsert(slots, capacity, EntryHash(d.entries[p]), p);
    }
}

// Byte comparison written out, not a memcmp call: a call would make every lookup save and
// restore registers, and key texts are short. Texts of eight bytes or more are compared in
// words, the last word overlapping the one before, so no byte loop runs.
bool SameBytes(const char* a, const char* b, size_t n) {
    auto word = [](const char* p) {
        UInt w;
        std::memcpy(&w, p, 8);
        return w;
    };
    if (n < 8) {
        for (size_t i = 0; i < n; ++i) {
            if (a[i] != b[i]) return false;
        }
        return true;
    }
    for (size_t i = 0; i + 8 < n; i += 8) {
        if (word(a + i) != word(b + i)) return false;
    }
    return word(a + n - 8) == word(b + n - 8);
}

// The entry for which `matches` holds in the index's run from the slot of `hash`.
template <typename Matches>
const Entry* FindWith(const DataDictionaryObject& d, UInt hash, Matches matches) {
    const size_t capacity = d.index.size();
    if (capacity == 0) return nullptr;  // no entries
    const Entry* entries = d.entries.data();
    const UInt32* slots = d.index.data();
    for (size_t s = FirstSlot(hash, capacity);; s = (s + 1) & (capacity - 1)) {
        const UInt32 p = slots[s];
        if (p == 0) return nullptr;  // the index is at most half full: a free slot ends the run
        if (matches(entries[p - 1])) return &entries[p - 1];
    }
}

// Id keys compare the word first, then the text pointer, then the bytes. Kept apart from the
// integer lookup (not inlined into one function) so that neither pays for the other's registers.
[[gnu::noinline]] const Entry* FindId(const DataDictionaryObject& d, const LiteralId& id) {
    const UInt word = id.word & ~LiteralId::OWNED_BIT;
    const char* text = id.text;
    return FindWith(d, MixedHash(word), [word, text](const Entry& e) {
        if (!e.key || e.word != word) return false;
        return e.key.get() == text ||
               (text && SameBytes(e.key.get(), text, static_cast<size_t>(word >> 44)));
    });
}

[[gnu::noinline]] const Entry* FindNumber(const DataDictionaryObject& d, Int number) {
    return FindWith(d, MixedHash(static_cast<UInt>(number)),
                    [number](const Entry& e) { return !e.key && e.number == number; });
}

Entry* Find(const DataDictionaryObject* d, const DataDictionaryKey& key) {
    if (!d) return nullptr;
    return const_cast<Entry*>(key.IsNumber() ? FindNumber(*d, key.number) : FindId(*d, key.id));
}

Error NullDictionary(const char* operation) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("@ on a null dictionary", {operation}));
}

DataDictionaryObject* DictionaryAlloc(const SourceLocation& loc) {
    return NewCountedObject<DataDictionaryObject>(&DeleteCountedObject<DataDictionaryObject>, loc);
}

// The key text of an id key in memory of the host's allocator; throws std::bad_alloc when short.
std::unique_ptr<char, DataDictionaryObject::KeyFree> CopyKeyText(std::string_view text) {
    auto* p = static_cast<char*>(
        SystemInterface::Alloc(static_cast<Int>(text.size() + 1), QUORV_SOURCE_LOCATION));
    if (!p) throw std::bad_alloc();
    std::memcpy(p, text.data(), text.size());
    p[text.size()] = 0;
    return std::unique_ptr<char, DataDictionaryObject::KeyFree>(p);
}

// A dictionary with copies of all entries of `source` (none for a null source) and of its
// index, whose positions hold for the copy too. Null when memory is short.
DataDictionaryObject* DictionaryAllocCopy(const DataDictionaryObject* source,
                                          const SourceLocation& loc) {
    DataDictionaryObject* d = DictionaryAlloc(loc);
    if (!d || !source) return d;
    try {
        d->entries.reserve(source->entries.size());
        for (const Entry& e : source->entries) {
            Entry copy;
            if (e.key) copy.key = CopyKeyText(e.Id().id.View());
            copy.word = e.word;
            copy.number = e.number;
            copy.value = e.value;
            if (copy.value.IsEmpty()) throw std::bad_alloc();
            d->entries.push_back(std::move(copy));
        }
        d->index = source->index;
    } catch (...) {
        DeleteCountedObject<DataDictionaryObject>(d);
        return nullptr;
    }
    return d;
}

void DictionaryFree(DataDictionaryObject* d) {
    if (d && !d->immortal) DeleteCountedObject<DataDictionaryObject>(d);
}

const DataDictionaryObject* DictionaryGetEmpty() {
    static DataDictionaryObject* const empty = [] {
        DataDictionaryObject* d = NewImmortalObject<DataDictionaryObject>();
        if (d) d->immortal = true;
        return d;
    }();
    return empty;
}

// Copies the value under `key` into `*out` (when given). False when absent, and when the copy
// failed for want of memory; `*out` is then empty.
Bool DictionaryGetData(const DataDictionaryObject* d, const DataDictionaryKey& key, Data* out) {
    const Entry* e = Find(d, key);
    if (out) *out = e ? e->value : Data();
    return e && (!out || !out->IsEmpty());
}

// The stored value itself, for callers that compare or read it in place.
const Data* DictionaryFindData(const DataDictionaryObject* d, const DataDictionaryKey& key) {
    const Entry* e = Find(d, key);
    return e ? &e->value : nullptr;
}

Result<void> DictionarySetData(DataDictionaryObject* d, const DataDictionaryKey& key,
                               const Data& value) {
    return GuardAllocation([&]() -> Result<void> {
        if (!d) return NullDictionary("SetData");
        if (d->immortal) {
            return MakeError(
                ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                FormatMessage("SetData of @ on the shared empty dictionary", {key.ToString()}));
        }
        if (!key.IsNumber() && (key.id.IsEmpty() || !key.id.text)) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "SetData with an empty key");
        }
        if (value.IsEmpty()) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("SetData of @ with an empty value", {key.ToString()}));
        }
        Data copy(value);
        if (copy.IsEmpty()) return OutOfMemoryError();
        if (Entry* e = Find(d, key)) {
            std::swap(e->value, copy);  // the old value goes with `copy`
            return OK;
        }
        // A new entry. Every allocation comes before the first change, so that running out of
        // memory at any of them leaves the dictionary as it was.
        Entry entry;
        if (key.IsNumber()) {
            entry.number = key.number;
        } else {
            entry.key = CopyKeyText(key.id.View());
            entry.word = key.id.word & ~LiteralId::OWNED_BIT;
        }
        entry.value = std::move(copy);
        const size_t n = d->entries.size();
        if (n >= UInt32(-1) - 1) return OutOfMemoryError();  // positions must fit the index
        if (n == d->entries.capacity()) d->entries.reserve(n < 4 ? 4 : 2 * n);
        if (2 * (n + 1) > d->index.size()) {
            decltype(d->index) grown(std::bit_ceil(4 * (n + 1)));
            IndexFill(*d, grown.data(), grown.size());
            d->index.swap(grown);
        }
        d->entries.push_back(std::move(entry));  // reserved: no allocation
        IndexInsert(d->index.data(), d->index.size(), EntryHash(d->entries[n]), n);
        return OK;
    });
}

Bool DictionaryEraseData(DataDictionaryObject* d, const DataDictionaryKey& key) {
    Entry* e = Find(d, key);
    if (!e || d->immortal) return false;
    d->entries.erase(d->entries.begin() + (e - d->entries.data()));
    // The entries behind moved down one position: refill the index in place (no allocation).
    IndexFill(*d, d->index.data(), d->index.size());
    return true;
}

Int DictionaryGetCount(const DataDictionaryObject* d) {
    return d ? static_cast<Int>(d->entries.size()) : 0;
}

// ---- iterators: the dictionary (referenced while the iterator lives) and a position -------

// Overwrites the state; an iterator must have been destructed before it is initialised again.
void IteratorInit(const DataDictionaryObject* d, DataDictionaryIteratorState* it) {
    if (!it) return;
    AddReference(d);
    it->dictionary = d;
    it->position = 0;
}

bool HasValue(const DataDictionaryIteratorState* it) {
    return it && it->dictionary && it->position >= 0 &&
           it->position < static_cast<Int>(it->dictionary->entries.size());
}

Bool IteratorHasValue(const DataDictionaryIteratorState* it) { return HasValue(it); }

// The key id points into the dictionary: it is valid while the dictionary lives unchanged.
Bool IteratorGetKeyAndData(const DataDictionaryIteratorState* it, DataDictionaryKey* key,
                           Data* out) {
    if (!HasValue(it)) {
        if (key) *key = DataDictionaryKey();
        if (out) out->Reset();
        return false;
    }
    const Entry& e = it->dictionary->entries[static_cast<size_t>(it->position)];
    if (key) *key = e.Id();
    if (out) {
        *out = e.value;
        if (out->IsEmpty()) return false;
    }
    return true;
}

void IteratorMoveToNext(DataDictionaryIteratorState* it) {
    if (HasValue(it)) ++it->position;
}

// Same dictionary and position; every iterator past the end of one dictionary is the same.
Bool IteratorIsEqual(const DataDictionaryIteratorState* a, const DataDictionaryIteratorState* b) {
    if (!a || !b) return a == b;
    if (a->dictionary != b->dictionary) return false;
    if (!a->dictionary) return true;
    Int count = static_cast<Int>(a->dictionary->entries.size());
    Int pa = a->position < count ? a->position : count;
    Int pb = b->position < count ? b->position : count;
    return pa == pb;
}

void IteratorDestruct(DataDictionaryIteratorState* it) {
    if (!it) return;
    const DataDictionaryObject* d = it->dictionary;
    it->dictionary = nullptr;
    it->position = 0;
    RemoveReference(d);
}

const DataDictionaryInterface::Slots g_dictionarySlots{
    .Alloc = &DictionaryAlloc,
    .AllocCopy = &DictionaryAllocCopy,
    .Free = &DictionaryFree,
    .GetEmpty = &DictionaryGetEmpty,
    .GetData = &DictionaryGetData,
    .SetData = &DictionarySetData,
    .EraseData = &DictionaryEraseData,
    .GetCount = &DictionaryGetCount,
    .InitIterator = &IteratorInit,
    .IteratorHasValue = &IteratorHasValue,
    .IteratorGetKeyAndData = &IteratorGetKeyAndData,
    .IteratorMoveToNext = &IteratorMoveToNext,
    .IteratorIsEqual = &IteratorIsEqual,
    .IteratorDestruct = &IteratorDestruct,
    .FindData = &DictionaryFindData,
};

}  // namespace

void RegisterDataDictionaryService(Host& host) {
    host.RegisterService<DataDictionaryInterface>(g_dictionarySlots);
}

}  // namespace quorv::host
