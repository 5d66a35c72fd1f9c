#pragma once
/// The C++ face of data dictionaries: copy-on-write stores of typed values by key, with a
/// shared empty instance that stands in for a null one.

#include "quorv/services.h"

namespace quorv {

/// A declared dictionary key with its value type. Id keys are defined at namespace scope in a
/// module source; each chains itself under `g_quorv.idList` so a host can list them. Integer
/// keys are plain numbers and are not listed.
template <typename T>
class DictionaryKey {
public:
    explicit DictionaryKey(const char* id) : _key(LiteralId(id)) {
        _record.id = LiteralId(id);
        _record.typeId = DataTypeIdOf<T>::id;
        _record.getType = &GetDataType<T>;
        AddDictionaryKey(_record);
    }
    explicit constexpr DictionaryKey(Int number) : _key(number) {}
    const DataDictionaryKey& GetId() const { return _key; }

private:
    DataDictionaryKey _key;
    DictionaryKeyRecord _record;
};

/// A counted reference to a host dictionary, or null.
class DataDictionary {
public:
    DataDictionary() = default;
    /// Takes a new reference on `d`.
    explicit DataDictionary(const DataDictionaryObject* d)
        : _d(const_cast<DataDictionaryObject*>(d)) {
        AddReference(_d);
    }
    DataDictionary(const DataDictionary& o) : _d(o._d) { AddReference(_d); }
    DataDictionary(DataDictionary&& o) noexcept : _d(std::exchange(o._d, nullptr)) {}
    DataDictionary& operator=(DataDictionary o) noexcept {
        std::swap(_d, o._d);
        return *this;
    }
    ~DataDictionary() { RemoveReference(_d); }

    /// A new empty dictionary; out of memory gives the kind 0 error.
    static Result<DataDictionary> Create();

    bool IsNull() const { return _d == nullptr; }
    const DataDictionaryObject* GetObject() const { return _d; }

    /// This dictionary, or the host's shared empty one when null. Null only when neither exists.
    const DataDictionaryObject* GetReadable() const {
        return _d ? _d : DataDictionaryInterface::GetEmpty();
    }

    /// The value stored under `key`, lent rather than copied; null when absent. It is valid
    /// while this dictionary is held and nobody writes it: writes through `DataDictionary` copy
    /// a shared dictionary first, so only a write through this very handle (while it is the
    /// sole holder) ends it. Any number of threads may look up one dictionary at once.
    ///
    /// A host that cannot lend answers null for every key; with `spare` given, the value is
    /// then copied into `*spare` and the answer points there (null when absent, or when the
    /// copy ran out of memory).
    const Data* Find(const DataDictionaryKey& key, Data* spare = nullptr) const {
        if (!_d) return nullptr;  // null reads as the empty dictionary
        const Data* v = DataDictionaryInterface::FindData(_d, key);
        return v || !spare ? v : FindCopy(key, spare);
    }
    /// The value under `key` when it is of type T, lent as `Find` lends it; null when absent or
    /// of another type.
    template <typename T>
    const T* GetPointer(const DictionaryKey<T>& key, Data* spare = nullptr) const {
        return GetPointer<T>(key.GetId(), spare);
    }
    template <typename T>
    const T* GetPointer(const DataDictionaryKey& key, Data* spare = nullptr) const {
        const Data* v = Find(key, spare);
        return v ? v->template Get<T>() : nullptr;
    }

    /// A copy of the value under `key`, or `defaultValue` when absent or of another type. Only
    /// the T is copied, not the stored value.
    template <typename T>
    T Get(const DictionaryKey<T>& key, const T& defaultValue) const {
        return Get<T>(key.GetId(), defaultValue);
    }
    template <typename T>
    T Get(const DataDictionaryKey& key, const T& defaultValue) const {
        Data spare;
        const T* v = GetPointer<T>(key, &spare);
        return v ? *v : defaultValue;
    }
    /// A copy of the raw value under `key`; empty when absent, or when memory is short.
    Data GetData(const DataDictionaryKey& key) const;

    /// Stores a value, first replacing a shared dictionary by a private copy.
    template <typename T>
    Result<void> Set(const DictionaryKey<T>& key, const T& value) {
        Data d = Data::Of(value);
        if (d.IsEmpty()) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
        return SetData(key.GetId(), d);
    }
    Result<void> SetData(const DataDictionaryKey& key, const Data& value);

    /// Makes this dictionary private: a shared one is replaced by a copy. A null one is created.
    Result<void> MakeWritable();
    Int GetCount() const;

private:
    // `Find` after the host found nothing: copies through `GetData` when the host cannot lend.
    const Data* FindCopy(const DataDictionaryKey& key, Data* spare) const;

    DataDictionaryObject* _d = nullptr;
};

}  // namespace quorv
