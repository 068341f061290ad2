// The stated fields of objects.
#ifndef TESTS_SUPPORT_FIELDS_H
#define TESTS_SUPPORT_FIELDS_H

#include <cstddef>
#include <cstring>

namespace kelto_test {

// What host code sees of an object: the field aOffset bytes from its beginning.
template <typename Field>
Field FieldAt(const void* aObject, size_t aOffset) {
    Field field;
    std::memcpy(&field, static_cast<const char*>(aObject) + aOffset, sizeof(field));
    return field;
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_FIELDS_H
