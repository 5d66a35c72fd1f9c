// Host data dictionaries: typed values by key, in insertion order. Copy on write is the
// caller's part (it copies a shared dictionary before it writes), so a dictionary is never
// written while another holder reads it and readers need no lock.
#include <memory>
#include <vector>

#include "services_impl.h"

namespace quorv {

struct DataDictionaryObject {
    struct Entry {
        std::unique_ptr<char[]> key;  // on the heap: key ids handed out stay put when entries move
        UInt word = 0;                // literal id word of the key, owned-text bit clear
        Int number = 0;               // the integer key, when there is no text
        Data value;

        DataDictionaryKey Id() const {
            if (!key) return DataDictionaryKey(number);
            return DataDictionaryKey(LiteralId(key.get(), word));
        }
    };
    std::vector<Entry> entries;
    bool immortal = false;  // the shared empty dictionary
};

}  // namespace quorv

namespace quorv::host {

namespace {

using Entry = DataDictionaryObject::Entry;

Entry* Find(const DataDictionaryObject* d, const DataDictionaryKey& key) {
    if (!d) return nullptr;
    for (const Entry& e : d->entries) {
        if (e.Id() == key) return const_cast<Entry*>(&e);
    }
    return nullptr;
}

Error NullDictionary(const char* operation) {
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     FormatMessage("@ on a null dictionary", {operation}));
}

DataDictionaryObject* DictionaryAlloc(const SourceLocation& loc) {
    return NewCountedObject<DataDictionaryObject>(&DeleteCountedObject<DataDictionaryObject>, loc);
}

// A dictionary with copies of all entries of `source` (none for a null source). Null when any
// copy fails for want of memory.
DataDictionaryObject* DictionaryAllocCopy(const DataDictionaryObject* source,
                                          const SourceLocation& loc) {
    DataDictionaryObject* d = DictionaryAlloc(loc);
    if (!d || !source) return d;
    try {
        d->entries.reserve(source->entries.size());
        for (const Entry& e : source->entries) {
            Entry copy;
            if (e.key) {
                size_t n = static_cast<size_t>(e.Id().id.Length());
                copy.key.reset(new char[n + 1]);
                std::memcpy(copy.key.get(), e.key.get(), n + 1);
            }
            copy.word = e.word;
            copy.number = e.number;
            copy.value = e.value;
            if (copy.value.IsEmpty()) throw std::bad_alloc();
            d->entries.push_back(std::move(copy));
        }
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
        Entry entry;
        if (key.IsNumber()) {
            entry.number = key.number;
        } else {
            std::string_view text = key.id.View();
            entry.key.reset(new char[text.size() + 1]);
            std::memcpy(entry.key.get(), text.data(), text.size());
            entry.key[text.size()] = 0;
            entry.word = LiteralIdWord(text);
        }
        entry.value = std::move(copy);
        d->entries.push_back(std::move(entry));
        return OK;
    });
}

Bool DictionaryEraseData(DataDictionaryObject* d, const DataDictionaryKey& key) {
    Entry* e = Find(d, key);
    if (!e || d->immortal) return false;
    d->entries.erase(d->entries.begin() + (e - d->entries.data()));
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
};

}  // namespace

void RegisterDataDictionaryService(Host& host) {
    host.RegisterService<DataDictionaryInterface>(g_dictionarySlots);
}

}  // namespace quorv::host
