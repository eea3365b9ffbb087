// CoreFoundation objects other than strings: reference counting, numbers and arrays.
#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFNumber.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "platform/sim/cf_object.h"

using platform::cf_object;
using platform::CFObject;

struct __CFNumber : CFObject {
    __CFNumber() : CFObject(platform::kCFNumberTypeID) {}
    bool Equals(const CFObject& other) const override {
        const auto& n = static_cast<const __CFNumber&>(other);
        if (isFloat || n.isFloat) return asDouble() == n.asDouble();
        return integer == n.integer;
    }
    double asDouble() const { return isFloat ? real : static_cast<double>(integer); }

    CFNumberType type = kCFNumberSInt64Type;
    bool isFloat = false;
    int64_t integer = 0;
    double real = 0;
};

struct __CFArray : CFObject {
    __CFArray() : CFObject(platform::kCFArrayTypeID) {}
    ~__CFArray() override {
        if (retains)
            for (const void* v : values) CFRelease(v);
    }
    bool Equals(const CFObject& other) const override {
        const auto& a = static_cast<const __CFArray&>(other);
        if (a.values.size() != values.size()) return false;
        for (size_t i = 0; i < values.size(); ++i)
            if (!CFEqual(values[i], a.values[i])) return false;
        return true;
    }

    std::vector<const void*> values;
    bool retains = false;
};

namespace {

const void* retain_value(CFAllocatorRef, const void* value) {
    return CFRetain(value);
}
void release_value(CFAllocatorRef, const void* value) {
    CFRelease(value);
}

bool is_float_type(CFNumberType type) {
    return type == kCFNumberFloat32Type || type == kCFNumberFloat64Type ||
           type == kCFNumberFloatType || type == kCFNumberDoubleType ||
           type == kCFNumberCGFloatType;
}

// Width in bytes of an integer type, 0 for an unknown one.
size_t integer_width(CFNumberType type) {
    switch (type) {
        case kCFNumberSInt8Type:
            return 1;
        case kCFNumberSInt16Type:
            return 2;
        case kCFNumberSInt32Type:
        case kCFNumberIntType:
            return 4;
        case kCFNumberSInt64Type:
        case kCFNumberLongType:
        case kCFNumberLongLongType:
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType:
            return 8;
        default:
            return 0;
    }
}

template <typename T>
bool store_integer(int64_t value, void* out) {
    const T narrowed = static_cast<T>(value);
    std::memcpy(out, &narrowed, sizeof narrowed);
    return static_cast<int64_t>(narrowed) == value;
}

}  // namespace

const CFArrayCallBacks kCFTypeArrayCallBacks{0, retain_value, release_value, nullptr, nullptr};

CFTypeRef CFRetain(CFTypeRef cf) {
    if (cf) cf_object(cf)->refs.fetch_add(1, std::memory_order_relaxed);
    return cf;
}

void CFRelease(CFTypeRef cf) {
    if (!cf) return;
    const CFObject* object = cf_object(cf);
    if (object->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete object;
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
    if (cf1 == cf2) return true;
    if (!cf1 || !cf2) return false;
    const CFObject* a = cf_object(cf1);
    const CFObject* b = cf_object(cf2);
    return a->typeID == b->typeID && a->Equals(*b);
}

CFTypeID CFGetTypeID(CFTypeRef cf) {
    return cf ? cf_object(cf)->typeID : 0;
}

CFTypeID CFNumberGetTypeID() {
    return platform::kCFNumberTypeID;
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType theType, const void* valuePtr) {
    if (!valuePtr) return nullptr;
    const bool isFloat = is_float_type(theType);
    const size_t width = integer_width(theType);
    if (!isFloat && width == 0) return nullptr;
    auto* n = new (std::nothrow) __CFNumber;
    if (!n) return nullptr;
    n->type = theType;
    n->isFloat = isFloat;
    if (theType == kCFNumberFloat32Type || theType == kCFNumberFloatType) {
        float f;
        std::memcpy(&f, valuePtr, sizeof f);
        n->real = f;
    } else if (isFloat) {
        std::memcpy(&n->real, valuePtr, sizeof n->real);
    } else if (width == 1) {
        int8_t v;
        std::memcpy(&v, valuePtr, 1);
        n->integer = v;
    } else if (width == 2) {
        int16_t v;
        std::memcpy(&v, valuePtr, 2);
        n->integer = v;
    } else if (width == 4) {
        int32_t v;
        std::memcpy(&v, valuePtr, 4);
        n->integer = v;
    } else {
        std::memcpy(&n->integer, valuePtr, 8);
    }
    return n;
}

CFNumberType CFNumberGetType(CFNumberRef number) {
    return number ? number->type : kCFNumberSInt64Type;
}

Boolean CFNumberIsFloatType(CFNumberRef number) {
    return number && number->isFloat;
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr) {
    if (!number || !valuePtr) return false;
    if (theType == kCFNumberFloat32Type || theType == kCFNumberFloatType) {
        const float f = static_cast<float>(number->asDouble());
        std::memcpy(valuePtr, &f, sizeof f);
        return static_cast<double>(f) == number->asDouble();
    }
    if (is_float_type(theType)) {
        const double d = number->asDouble();
        std::memcpy(valuePtr, &d, sizeof d);
        return number->isFloat || static_cast<int64_t>(d) == number->integer;
    }
    int64_t value = number->integer;
    bool exact = true;
    if (number->isFloat) {
        // Out of range or not a number: converting would be undefined, so clamp.
        const double d = number->real;
        if (std::isnan(d)) {
            value = 0;
        } else if (d >= 9.2233720368547758e18) {
            value = std::numeric_limits<int64_t>::max();
        } else if (d <= -9.2233720368547758e18) {
            value = std::numeric_limits<int64_t>::min();
        } else {
            value = static_cast<int64_t>(d);
        }
        exact = static_cast<double>(value) == d;
    }
    switch (integer_width(theType)) {
        case 1:
            return store_integer<int8_t>(value, valuePtr) && exact;
        case 2:
            return store_integer<int16_t>(value, valuePtr) && exact;
        case 4:
            return store_integer<int32_t>(value, valuePtr) && exact;
        case 8:
            return store_integer<int64_t>(value, valuePtr) && exact;
        default:
            return false;
    }
}

CFTypeID CFArrayGetTypeID() {
    return platform::kCFArrayTypeID;
}

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex numValues,
                         const CFArrayCallBacks* callBacks) {
    if (numValues < 0 || (numValues > 0 && !values)) return nullptr;
    auto* a = new (std::nothrow) __CFArray;
    if (!a) return nullptr;
    try {
        a->values.assign(values, values + numValues);
    } catch (const std::bad_alloc&) {
        delete a;
        return nullptr;
    }
    a->retains = callBacks != nullptr && callBacks->retain != nullptr;
    if (a->retains)
        for (const void* v : a->values) CFRetain(v);
    return a;
}

CFIndex CFArrayGetCount(CFArrayRef theArray) {
    return theArray ? static_cast<CFIndex>(theArray->values.size()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx) {
    if (!theArray || idx < 0 || static_cast<size_t>(idx) >= theArray->values.size()) return nullptr;
    return theArray->values[static_cast<size_t>(idx)];
}
