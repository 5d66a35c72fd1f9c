#pragma once
/// Data descriptions: per id and category (and, for texts, per language) a list of entries,
/// each a dictionary of typed values. The host reads them from JSON files of the folders that
/// modules register with `RegisterDatabaseWithUrl`. Also the host's warning output and the
/// values that node code keeps in dictionaries. The language of text descriptions is the
/// resource service's (quorv/resource.h).

#include <vector>

#include "quorv/datadictionary.h"
#include "quorv/resource.h"
#include "quorv/services.h"

namespace quorv {

/// A loaded description (a counted host object).
struct DescriptionObject;

// clang-format off
#define QUORV_DATADESCRIPTIONDATABASE_METHODS(M) \
    M(Result<DescriptionObject*>, LoadDescription, (const LiteralId& id, const LiteralId& category, const LanguageObject* language), (id, category, language))
#define QUORV_DATADESCRIPTION_METHODS(M) \
    M(Result<std::vector<DataDictionary>>, GetEntries, (const DescriptionObject* description), (description)) \
    M(DataDictionary, GetEntry, (const DescriptionObject* description, const LiteralId& identifier), (description, identifier)) \
    M(void, Free, (DescriptionObject* description), (description))
#define QUORV_WARNING_METHODS(M) \
    M(void, WarningOutput, (const char* message), (message))
// clang-format on

/// `LoadDescription(id, category, language)`: the description, searched in the registered
/// folders in registration order as FOLDER/CATEGORY/ID.json (no language) or
/// FOLDER/CATEGORY/LANGUAGE/ID.json, a missing language falling back to "en". Errors name the
/// id, the category and the file. Caller frees with `DataDescriptionInterface::Free`.
QUORV_NONVIRTUAL_INTERFACE(DataDescriptionDatabaseInterface,
                           "net.quorv.interface.datadescriptiondatabase",
                           QUORV_DATADESCRIPTIONDATABASE_METHODS);
/// `GetEntries`: the entries in file order (shared dictionaries); `GetEntry`: the entry whose
/// "net.quorv.description.base.identifier" is `identifier`, or null.
QUORV_NONVIRTUAL_INTERFACE(DataDescriptionInterface, "net.quorv.interface.datadescription",
                           QUORV_DATADESCRIPTION_METHODS);
/// `WarningOutput`: a warning for a person; the host keeps it in its warning log.
QUORV_NONVIRTUAL_INTERFACE(WarningInterface, "net.quorv.interface.warning", QUORV_WARNING_METHODS);

/// Entry keys of data descriptions.
namespace descriptionkey {
constexpr const char* IDENTIFIER = "net.quorv.description.base.identifier";
constexpr const char* DATATYPE = "net.quorv.description.data.base.datatype";
constexpr const char* DEFAULTVALUE = "net.quorv.description.data.base.defaultvalue";
constexpr const char* CLASSIFICATION = "net.quorv.description.data.base.classification";
constexpr const char* TRANSLATEDSTRING = "net.quorv.description.string.base.translatedstring";
}  // namespace descriptionkey

/// Owns one reference of a loaded description.
class Description {
public:
    Description() = default;
    explicit Description(DescriptionObject* d) : _d(d) {}
    Description(Description&& o) noexcept : _d(std::exchange(o._d, nullptr)) {}
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;
    ~Description() {
        if (_d) DataDescriptionInterface::Free(_d);
    }
    const DescriptionObject* Get() const { return _d; }

private:
    DescriptionObject* _d = nullptr;
};

/// An (Id, String) pair: a renderer and its name, in node world messages.
struct IdStringTuple {
    Id first;
    std::string second;
    friend bool operator==(const IdStringTuple&, const IdStringTuple&) = default;
    friend bool operator<(const IdStringTuple& a, const IdStringTuple& b) {
        return a.first < b.first || (a.first == b.first && a.second < b.second);
    }
};

// Dictionaries as values compare by identity: equal exactly when they share one object, which
// is what copy-on-write keeps for values that were not written.
inline bool operator==(const DataDictionary& a, const DataDictionary& b) {
    return a.GetObject() == b.GetObject();
}
inline bool operator<(const DataDictionary& a, const DataDictionary& b) {
    return a.GetObject() < b.GetObject();
}

QUORV_DATATYPE_ID(DataDictionary, "net.quorv.datadictionary");
QUORV_DATATYPE_ID(IdStringTuple, "net.quorv.tuple<net.quorv.id,net.quorv.string>");

/// True when two values have one type that compares them equal. Values of no common type,
/// empty values and types without a comparison are unequal. No copy is made.
bool IsEqualData(const Data& a, const Data& b);

}  // namespace quorv

template <>
struct std::hash<quorv::DataDictionary> {
    std::size_t operator()(const quorv::DataDictionary& d) const {
        return std::hash<const void*>()(d.GetObject());
    }
};
template <>
struct std::hash<quorv::IdStringTuple> {
    std::size_t operator()(const quorv::IdStringTuple& t) const {
        return t.first.Hash() * 31 + std::hash<std::string>()(t.second);
    }
};
