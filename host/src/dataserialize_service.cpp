// Serialisation of described objects as JSON: the describe function of a type lists its
// members into a stream, and the writer and reader walk that list over an object.
#include <nlohmann/json.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "host_internal.h"
#include "quorv/dataserialize.h"
#include "quorv/datadictionary.h"
#include "quorv/string.h"
#include "services_impl.h"

namespace quorv {

struct DescribeStreamObject {
    struct Member {
        std::string name;
        std::string typeId;
        Int offset;
        const DescribeArrayAccessor* accessor;
        Int32 flags;
    };
    std::vector<Member> members;
    /// Added to every described offset: the place of the component being described in its
    /// object (0 for a plain described type).
    Int baseOffset = 0;
};

}  // namespace quorv

namespace quorv::host {

namespace {

using Json = nlohmann::json;

Result<void> DescribeMember(DescribeStreamObject* stream, const char* name, const char* typeId,
                            Int offset, const DescribeArrayAccessor* accessor, Int32 flags) {
    if (!stream || !name || !typeId) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Member description incomplete");
    }
    if ((flags & DESCRIBEFLAGS_ARRAY) && !accessor) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Array member @ without accessor", {name}));
    }
    return GuardAllocation([&]() -> Result<void> {
        stream->members.push_back({name, typeId, stream->baseOffset + offset, accessor, flags});
        return OK;
    });
}

Result<DescribeStreamObject> Describe(DescribeFunc describe) {
    DescribeStreamObject stream;
    if (!describe) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Describe function missing");
    QUORV_RETURN_IF_ERROR(describe(&stream));
    return stream;
}

// The members of every component of an instance's class that describes its own, in component
// order. A component's error (a class that refuses serialisation) is returned as it is.
Result<DescribeStreamObject> DescribeObject(const void* instance) {
    DescribeStreamObject stream;
    bool described = false;
    Result<void> r = ForEachComponentOf(
        instance, [&](const ComponentRecord& component, Int offset) -> Result<void> {
            if (!component.describeIO) return OK;
            described = true;
            stream.baseOffset = offset;
            return component.describeIO(&stream);
        });
    if (r.IsError()) return r.GetError();
    if (!described) {
        return MakeError(
            ERRORKIND::FUNCTIONNOTIMPLEMENTED, QUORV_SOURCE_LOCATION,
            FormatMessage("Objects of class @ describe no members",
                          {ClassInterface::GetId(ClassInterface::GetClass(instance)).View()}));
    }
    return stream;
}

Error FormatError(const std::string& message) {
    return MakeErrorWithId("net.quorv.error.fileformat", QUORV_SOURCE_LOCATION, message);
}

// ---- dictionary values ------------------------------------------------------------------------

Result<Json> ValueToJson(const Data& value) {
    const DataType* t = value.GetType();
    const void* p = value.GetPointer();
    std::string_view id = t->id.View();
    Json v;
    if (t->kind == DATATYPEKIND::ENUM && t->size == 4) v = *static_cast<const Int32*>(p);
    else if (id == "bool") v = *static_cast<const Bool*>(p);
    else if (id == "int32") v = *static_cast<const Int32*>(p);
    else if (id == "int64") v = *static_cast<const Int*>(p);
    else if (id == "float64") v = *static_cast<const Float64*>(p);
    else if (id == DataTypeIdOf<std::string>::id) v = *static_cast<const std::string*>(p);
    else if (id == DataTypeIdOf<Vector64>::id) {
        const auto* q = static_cast<const Vector64*>(p);
        v = Json::array({q->x, q->y, q->z});
    } else {
        return FormatError(FormatMessage("Cannot write values of type @", {id}));
    }
    return Json{{"type", std::string(id)}, {"value", v}};
}

Result<Data> JsonToValue(const Json& j) {
    if (!j.is_object() || !j.contains("type") || !j["type"].is_string() || !j.contains("value")) {
        return FormatError("Dictionary value needs \"type\" and \"value\"");
    }
    std::string id = j["type"].get<std::string>();
    const DataType* t = DataTypeLibInterface::GetRuntimeDataType(id.c_str());
    if (!t) return FormatError(FormatMessage("Unknown data type @", {id}));
    const Json& v = j["value"];
    auto bad = [&] { return FormatError(FormatMessage("Bad value of type @", {id})); };
    Data d;
    if (t->kind == DATATYPEKIND::ENUM && t->size == 4) {
        if (!v.is_number_integer()) return bad();
        Int32 x = v.get<Int32>();
        d = Data::Make(t, &x);
    } else if (id == "bool") {
        if (!v.is_boolean()) return bad();
        Bool x = v.get<Bool>();
        d = Data::Make(t, &x);
    } else if (id == "int32" || id == "int64") {
        if (!v.is_number_integer()) return bad();
        Int x = v.get<Int>();
        Int32 x32 = static_cast<Int32>(x);
        d = Data::Make(t, id == "int32" ? static_cast<const void*>(&x32) : &x);
    } else if (id == "float64") {
        if (!v.is_number()) return bad();
        Float64 x = v.get<Float64>();
        d = Data::Make(t, &x);
    } else if (id == DataTypeIdOf<std::string>::id) {
        if (!v.is_string()) return bad();
        std::string x = v.get<std::string>();
        d = Data::Make(t, &x);
    } else if (id == DataTypeIdOf<Vector64>::id) {
        if (!v.is_array() || v.size() != 3 || !v[0].is_number() || !v[1].is_number() ||
            !v[2].is_number()) {
            return bad();
        }
        Vector64 x{v[0].get<Float64>(), v[1].get<Float64>(), v[2].get<Float64>()};
        d = Data::Make(t, &x);
    } else {
        return FormatError(FormatMessage("Cannot read values of type @", {id}));
    }
    if (d.IsEmpty()) return OutOfMemoryError();
    return d;
}

Result<Json> DictionaryToJson(const DataDictionary& dictionary) {
    Json entries = Json::array();
    const DataDictionaryObject* d = dictionary.GetObject();
    if (!d) return entries;
    DataDictionaryIteratorState it;
    DataDictionaryInterface::InitIterator(d, &it);
    Result<void> failure = OK;
    while (DataDictionaryInterface::IteratorHasValue(&it)) {
        DataDictionaryKey key;
        Data value;
        if (DataDictionaryInterface::IteratorGetKeyAndData(&it, &key, &value) && !value.IsEmpty()) {
            Result<Json> v = ValueToJson(value);
            if (v.IsError()) {
                failure = v.GetError();
                break;
            }
            Json e = v.GetValue();
            if (key.IsNumber()) e["key"] = key.number;
            else e["id"] = std::string(key.id.View());
            entries.push_back(std::move(e));
        }
        DataDictionaryInterface::IteratorMoveToNext(&it);
    }
    DataDictionaryInterface::IteratorDestruct(&it);
    if (failure.IsError()) return failure.GetError();
    return entries;
}

Result<DataDictionary> JsonToDictionary(const Json& j) {
    if (!j.is_array()) return FormatError("A dictionary is an array of entries");
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created.GetError();
    DataDictionary d = created.GetValue();
    for (const Json& e : j) {
        Result<Data> value = JsonToValue(e);
        if (value.IsError()) return value.GetError();
        DataDictionaryKey key;
        if (e.contains("key") && e["key"].is_number_integer()) {
            key = DataDictionaryKey(e["key"].get<Int>());
        } else if (e.contains("id") && e["id"].is_string()) {
            // Literal ids keep a pointer to their text: the host's constant strings live on.
            std::string text = e["id"].get<std::string>();
            const CStringObject* c = CStringInterface::GetAndCacheConstString(
                text.c_str(), static_cast<Int>(text.size()));
            if (!c) return OutOfMemoryError();
            key = DataDictionaryKey(LiteralId(CStringInterface::GetData(c)));
        } else {
            return FormatError("Dictionary entry needs \"key\" or \"id\"");
        }
        QUORV_RETURN_IF_ERROR(d.SetData(key, value.GetValue()));
    }
    return d;
}

// ---- members ----------------------------------------------------------------------------

Result<Json> MemberToJson(const DescribeStreamObject::Member& m, const char* object) {
    const char* p = object + m.offset;
    if (m.flags & DESCRIBEFLAGS_ARRAY) {
        if (m.typeId != "float64") return FormatError(FormatMessage("Cannot write arrays of @", {m.typeId}));
        Int n = m.accessor->getCount(p);
        const auto* e = static_cast<const Float64*>(m.accessor->getElements(p));
        Json a = Json::array();
        for (Int i = 0; i < n; ++i) a.push_back(e[i]);
        return a;
    }
    if (m.typeId == "float64") return Json(*reinterpret_cast<const Float64*>(p));
    if (m.typeId == "uint32") return Json(*reinterpret_cast<const UInt32*>(p));
    if (m.typeId == "int32") return Json(*reinterpret_cast<const Int32*>(p));
    if (m.typeId == "int64") return Json(*reinterpret_cast<const Int*>(p));
    if (m.typeId == DATADICTIONARY_TYPE_ID) {
        return DictionaryToJson(*reinterpret_cast<const DataDictionary*>(p));
    }
    return FormatError(FormatMessage("Cannot write members of type @", {m.typeId}));
}

Result<void> JsonToMember(const DescribeStreamObject::Member& m, const Json& j, char* object) {
    char* p = object + m.offset;
    auto bad = [&] { return FormatError(FormatMessage("Bad value of member @", {m.name})); };
    if (m.flags & DESCRIBEFLAGS_ARRAY) {
        if (m.typeId != "float64") return FormatError(FormatMessage("Cannot read arrays of @", {m.typeId}));
        if (!j.is_array()) return bad();
        for (const Json& e : j) {
            if (!e.is_number()) return bad();
        }
        QUORV_RETURN_IF_ERROR(m.accessor->resize(p, static_cast<Int>(j.size())));
        auto* e = static_cast<Float64*>(m.accessor->getMutableElements(p));
        for (size_t i = 0; i < j.size(); ++i) e[i] = j[i].get<Float64>();
        return OK;
    }
    if (m.typeId == "float64") {
        if (!j.is_number()) return bad();
        *reinterpret_cast<Float64*>(p) = j.get<Float64>();
    } else if (m.typeId == "uint32" || m.typeId == "int32" || m.typeId == "int64") {
        if (!j.is_number_integer()) return bad();
        if (m.typeId == "uint32") *reinterpret_cast<UInt32*>(p) = j.get<UInt32>();
        else if (m.typeId == "int32") *reinterpret_cast<Int32*>(p) = j.get<Int32>();
        else *reinterpret_cast<Int*>(p) = j.get<Int>();
    } else if (m.typeId == DATADICTIONARY_TYPE_ID) {
        Result<DataDictionary> d = JsonToDictionary(j);
        if (d.IsError()) return d.GetError();
        *reinterpret_cast<DataDictionary*>(p) = d.GetValue();
    } else {
        return FormatError(FormatMessage("Cannot read members of type @", {m.typeId}));
    }
    return OK;
}

Result<CStringObject*> WriteMembers(const void* object, const DescribeStreamObject& stream) {
    Json out = Json::object();
    for (const auto& m : stream.members) {
        Result<Json> v = MemberToJson(m, static_cast<const char*>(object));
        if (v.IsError()) return v.GetError();
        out[m.name] = std::move(v.GetValue());
    }
    std::string text = out.dump();
    CStringObject* s = CStringInterface::Alloc(QUORV_SOURCE_LOCATION);
    if (!s) return OutOfMemoryError();
    AddReference(s);
    Result<void> set = CStringInterface::SetCString(s, text.data(), static_cast<Int>(text.size()));
    if (set.IsError()) {
        RemoveReference(s);
        return set.GetError();
    }
    return s;
}

Result<void> ReadMembers(void* object, const DescribeStreamObject& stream, const char* text,
                         Int length) {
    Json j = Json::parse(text, text + length, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return FormatError("Text is not a JSON object");
    for (const auto& m : stream.members) {
        if (!j.contains(m.name)) continue;
        QUORV_RETURN_IF_ERROR(JsonToMember(m, j[m.name], static_cast<char*>(object)));
    }
    return OK;
}

Result<CStringObject*> WriteJson(const void* object, DescribeFunc describe) {
    if (!object) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Object missing");
    return GuardAllocation([&]() -> Result<CStringObject*> {
        Result<DescribeStreamObject> stream = Describe(describe);
        if (stream.IsError()) return stream.GetError();
        return WriteMembers(object, stream.GetValue());
    });
}

Result<void> ReadJson(void* object, DescribeFunc describe, const char* text, Int length) {
    if (!object || (!text && length > 0)) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Object or text missing");
    }
    return GuardAllocation([&]() -> Result<void> {
        Result<DescribeStreamObject> stream = Describe(describe);
        if (stream.IsError()) return stream.GetError();
        return ReadMembers(object, stream.GetValue(), text, length);
    });
}

Result<CStringObject*> WriteObjectJson(const void* instance) {
    if (!instance) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Object missing");
    return GuardAllocation([&]() -> Result<CStringObject*> {
        Result<DescribeStreamObject> stream = DescribeObject(instance);
        if (stream.IsError()) return stream.GetError();
        return WriteMembers(instance, stream.GetValue());
    });
}

Result<void> ReadObjectJson(void* instance, const char* text, Int length) {
    if (!instance || (!text && length > 0)) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Object or text missing");
    }
    return GuardAllocation([&]() -> Result<void> {
        Result<DescribeStreamObject> stream = DescribeObject(instance);
        if (stream.IsError()) return stream.GetError();
        return ReadMembers(instance, stream.GetValue(), text, length);
    });
}

const DataSerializeInterface::Slots g_slots{
    .DescribeMember = &DescribeMember,
    .WriteJson = &WriteJson,
    .ReadJson = &ReadJson,
    .WriteObjectJson = &WriteObjectJson,
    .ReadObjectJson = &ReadObjectJson,
};

}  // namespace

void RegisterDataSerializeService(Host& host) {
    host.RegisterService<DataSerializeInterface>(g_slots);
}

}  // namespace quorv::host
