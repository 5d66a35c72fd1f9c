// Data descriptions from JSON files of registered folders, and the warning log.
//
// A description file is an object {"entries": [ENTRY, ...]}; an entry maps keys to values. The
// identifier, the data type id and the classification become ids; the default value is typed
// by the entry's data type when the host knows it, and by its JSON form otherwise (so a default
// beside an unknown type id is kept). An entry without identifier is refused; of two entries
// with one identifier the later replaces the earlier in its place.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "host_internal.h"
#include "quorv/datadescription.h"
#include "quorv/host/warnings.h"
#include "quorv/url.h"
#include "services_impl.h"

namespace quorv {

struct DescriptionObject {
    std::vector<DataDictionary> entries;
};

}  // namespace quorv

namespace quorv::host {

namespace {

std::mutex g_warningMutex;
std::vector<std::string> g_warnings;

void WarningOutput(const char* message) {
    const std::string text(message ? message : "");
    {
        std::lock_guard<std::mutex> lock(g_warningMutex);
        g_warnings.push_back(text);
    }
    if (GetCriticalEcho()) std::fprintf(stderr, "quorv: warning: %s\n", text.c_str());
}

std::string FolderOfUrlText(const std::string& text) {
    constexpr std::string_view FILE_SCHEME = "file://";
    if (text.rfind(FILE_SCHEME, 0) == 0) return text.substr(FILE_SCHEME.size());
    return text;
}

template <typename T>
Result<Data> Typed(const T& value) {
    Data d = Data::Of(value);
    if (d.IsEmpty()) return OutOfMemoryError();
    return d;
}

// A JSON value as a typed value: by `typeId` when given and known, else by its own form.
Result<Data> ToData(const nlohmann::json& v, std::string_view typeId, const std::string& where) {
    auto bad = [&]() -> Result<Data> {
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            where + ": value " + v.dump() + " does not fit data type " + std::string(typeId));
    };
    auto numbers = [&](size_t n, double* out) {
        if (!v.is_array() || v.size() != n) return false;
        for (size_t i = 0; i < n; ++i) {
            if (!v[i].is_number()) return false;
            out[i] = v[i].get<double>();
        }
        return true;
    };
    const bool known =
        !typeId.empty() && DataTypeLibInterface::GetRuntimeDataType(std::string(typeId).c_str());
    if (known) {
        double c[4];
        if (typeId == "bool") return v.is_boolean() ? Typed<Bool>(v.get<bool>()) : bad();
        if (typeId == "int32") return v.is_number_integer() ? Typed<Int32>(v.get<Int32>()) : bad();
        if (typeId == "int64") return v.is_number_integer() ? Typed<Int>(v.get<Int>()) : bad();
        if (typeId == "float32") return v.is_number() ? Typed<Float32>(v.get<Float32>()) : bad();
        if (typeId == "float64") return v.is_number() ? Typed<Float64>(v.get<Float64>()) : bad();
        if (typeId == DataTypeIdOf<std::string>::id)
            return v.is_string() ? Typed<std::string>(v.get<std::string>()) : bad();
        if (typeId == DataTypeIdOf<Id>::id) {
            if (!v.is_string()) return bad();
            return Typed<Id>(Id::Intern(v.get<std::string>()));
        }
        if (typeId == DataTypeIdOf<Vector64>::id)
            return numbers(3, c) ? Typed<Vector64>(Vector64{c[0], c[1], c[2]}) : bad();
        if (typeId == DataTypeIdOf<Color64>::id)
            return numbers(3, c) ? Typed<Color64>(Color64{c[0], c[1], c[2]}) : bad();
        if (typeId == DataTypeIdOf<Vector2d64>::id)
            return numbers(2, c) ? Typed<Vector2d64>(Vector2d64{c[0], c[1]}) : bad();
    }
    if (v.is_boolean()) return Typed<Bool>(v.get<bool>());
    if (v.is_number_integer()) return Typed<Int>(v.get<Int>());
    if (v.is_number()) return Typed<Float64>(v.get<Float64>());
    if (v.is_string()) return Typed<std::string>(v.get<std::string>());
    double c[3];
    if (numbers(3, c)) return Typed<Vector64>(Vector64{c[0], c[1], c[2]});
    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                     where + ": value " + v.dump() + " has no data type");
}

bool IsIdKey(std::string_view key) {
    return key == descriptionkey::IDENTIFIER || key == descriptionkey::DATATYPE ||
           key == descriptionkey::CLASSIFICATION;
}

Result<DescriptionObject*> Parse(const std::string& text, const std::string& where) {
    auto fail = [&](const std::string& why) -> Result<DescriptionObject*> {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, where + ": " + why);
    };
    nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    if (!doc.is_object() || !doc.contains("entries") || !doc["entries"].is_array())
        return fail("not an object with an array \"entries\"");
    std::unique_ptr<DescriptionObject, void (*)(DescriptionObject*)> d(
        NewCountedObject<DescriptionObject>(&DeleteCountedObject<DescriptionObject>,
                                            QUORV_SOURCE_LOCATION),
        [](DescriptionObject* p) { RemoveReference(p); });
    if (!d) return OutOfMemoryError();
    std::vector<std::string> identifiers;
    Int index = 0;
    for (const nlohmann::json& e : doc["entries"]) {
        const std::string entryWhere = where + ", entry " + std::to_string(index++);
        if (!e.is_object()) return fail("entry " + std::to_string(index - 1) + " is no object");
        auto id = e.find(descriptionkey::IDENTIFIER);
        if (id == e.end() || !id->is_string() || id->get<std::string>().empty())
            return fail("entry " + std::to_string(index - 1) + " has no identifier");
        std::string typeId;
        if (auto t = e.find(descriptionkey::DATATYPE); t != e.end() && t->is_string())
            typeId = t->get<std::string>();
        Result<DataDictionary> dict = DataDictionary::Create();
        if (dict.IsError()) return dict.GetError();
        DataDictionary entry = dict.GetValue();
        for (auto it = e.begin(); it != e.end(); ++it) {
            Result<Data> value = Result<Data>(Data());
            if (IsIdKey(it.key())) {
                if (!it->is_string()) return fail(it.key() + " of an entry is not a text");
                value = Typed<Id>(Id::Intern(it->get<std::string>()));
            } else if (it.key() == descriptionkey::DEFAULTVALUE) {
                value = ToData(*it, typeId, entryWhere);
            } else {
                value = ToData(*it, "", entryWhere);
            }
            if (value.IsError()) return value.GetError();
            QUORV_RETURN_IF_ERROR(entry.SetData(LiteralId(it.key().c_str()), value.GetValue()));
        }
        const std::string identifier = id->get<std::string>();
        auto same = std::find(identifiers.begin(), identifiers.end(), identifier);
        if (same != identifiers.end()) {
            d->entries[static_cast<size_t>(same - identifiers.begin())] = entry;
        } else {
            identifiers.push_back(identifier);
            d->entries.push_back(entry);
        }
    }
    return d.release();
}

Result<DescriptionObject*> LoadDescription(const LiteralId& id, const LiteralId& category,
                                           const LanguageObject* language) {
    return GuardAllocation([&]() -> Result<DescriptionObject*> {
        const std::string name(id.View()), cat(category.View());
        const std::string what = "Cannot load description " + name + " of category " + cat;
        if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             what + ": the id is not a file name");
        std::vector<std::string> tried;
        for (const auto& [dbId, url] : ListDatabases()) {
            const std::filesystem::path folder = std::filesystem::path(FolderOfUrlText(url)) / cat;
            std::vector<std::filesystem::path> candidates;
            if (language) {
                candidates.push_back(folder / language->name / (name + ".json"));
                if (language->name != "en") candidates.push_back(folder / "en" / (name + ".json"));
            } else {
                candidates.push_back(folder / (name + ".json"));
            }
            for (const std::filesystem::path& file : candidates) {
                // Two databases may name one folder: each file is tried and named once.
                if (std::find(tried.begin(), tried.end(), file.string()) != tried.end()) continue;
                std::error_code ec;
                tried.push_back(file.string());
                if (!std::filesystem::is_regular_file(file, ec)) continue;
                Result<std::string> bytes = ReadWholeFile(file.string());
                if (bytes.IsError())
                    return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                     what + " from " + file.string() + ": " +
                                         ErrorToString(bytes.GetErrorPointer()));
                return Parse(bytes.GetValue(), what + " from " + file.string());
            }
        }
        std::string files;
        for (const std::string& f : tried) files += (files.empty() ? "" : ", ") + f;
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         what + ": no file" + (files.empty() ? " (no database)" : " " + files));
    });
}

Result<std::vector<DataDictionary>> GetEntries(const DescriptionObject* d) {
    if (!d) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "no description");
    return GuardAllocation([&]() -> Result<std::vector<DataDictionary>> { return d->entries; });
}

DataDictionary GetEntry(const DescriptionObject* d, const LiteralId& identifier) {
    if (!d) return {};
    const Id want = Id::Intern(identifier.View());
    for (const DataDictionary& e : d->entries) {
        if (e.Get<Id>(descriptionkey::IDENTIFIER, Id()) == want) return e;
    }
    return {};
}

void FreeDescription(DescriptionObject* d) { RemoveReference(d); }

const DataDescriptionDatabaseInterface::Slots g_databaseSlots{.LoadDescription = &LoadDescription};
const DataDescriptionInterface::Slots g_descriptionSlots{
    .GetEntries = &GetEntries, .GetEntry = &GetEntry, .Free = &FreeDescription};
const WarningInterface::Slots g_warningSlots{.WarningOutput = &WarningOutput};

}  // namespace

void RegisterDataDescriptionService(Host& host) {
    host.RegisterService<DataDescriptionDatabaseInterface>(g_databaseSlots);
    host.RegisterService<DataDescriptionInterface>(g_descriptionSlots);
    host.RegisterService<WarningInterface>(g_warningSlots);
}

std::vector<std::string> GetWarningLog() {
    std::lock_guard<std::mutex> lock(g_warningMutex);
    return g_warnings;
}

void ClearWarningLog() {
    std::lock_guard<std::mutex> lock(g_warningMutex);
    g_warnings.clear();
}

Result<void> RegisterDescriptionFolder(const std::string& id, const std::string& folder) {
    Result<Url> url = Url::FromText(folder);
    if (url.IsError()) return url.GetError();
    return DataDescriptionDefinitionDatabaseInterface::RegisterDatabaseWithUrl(
        LiteralId(id.c_str()), url.GetValue().GetObject());
}

bool UnregisterDescriptionFolder(const std::string& id) { return UnregisterDatabase(id); }

}  // namespace quorv::host
