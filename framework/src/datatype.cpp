#include "quorv/datatype.h"

#include <string>

#include "quorv/services.h"

namespace quorv {

Data::Data(const Data& o) : _type(nullptr), _value(nullptr) {
    if (o._type && o._value) *this = Make(o._type, o._value);
}

Data Data::Make(const DataType* type, const void* src) {
    Data d;
    if (!type || !type->operations) return d;
    void* v = src ? type->operations->HeapClone(type, src) : type->operations->HeapNew(type);
    if (!v) return d;
    d._type = type;
    d._value = v;
    return d;
}

void Data::Reset() {
    if (_type && _value) _type->operations->HeapDelete(_type, _value);
    _type = nullptr;
    _value = nullptr;
}

void ReportUndefinedOperation(const char* operation) {
    CriticalOutput(std::string("Stop: ") + operation + " not defined.", QUORV_SOURCE_LOCATION);
}

}  // namespace quorv
