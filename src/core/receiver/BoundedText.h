#pragma once
// Text of a fixed-width record field: UTF-8 bytes up to the first zero or the field's end,
// whichever comes first, so a field without its terminator never reads past the record.
#include <QString>
#include <cstddef>
#include <cstring>

namespace lumerix {

inline QString boundedUtf8(const char* bytes, size_t capacity) {
    return QString::fromUtf8(bytes, static_cast<qsizetype>(::strnlen(bytes, capacity)));
}

template <size_t N>
QString boundedUtf8(const char (&field)[N]) {
    return boundedUtf8(field, N);
}

}  // namespace lumerix
