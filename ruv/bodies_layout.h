#pragma once
/// The assertion that a packed field lies where the wire has it.
#include <cstddef>

#define AT(type, field, offset) \
    static_assert(offsetof(type, field) == (offset), #type "." #field " has moved")
