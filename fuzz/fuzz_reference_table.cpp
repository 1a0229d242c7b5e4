// Arbitrary bytes through the reference-table loader: the nesting checks, the plist parser (XML and
// binary) and the conversion to Qt values; a value that loads is written back as XML and loaded
// again, the way a table goes from one run to the next.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "QuietLog.h"
#include "log/Log.h"
#include "shell/ReferenceTable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    lumerix::fuzz::quietLog();
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const auto value = lumerix::ReferenceTable::propertyListFromData(bytes);
    if (!value) return 0;
    const QByteArray xml = lumerix::ReferenceTable::xmlFromPropertyList(*value);
    if (!xml.isEmpty()) (void)lumerix::ReferenceTable::propertyListFromData(xml);
    return 0;
}
