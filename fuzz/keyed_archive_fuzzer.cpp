// The keyed archive decoder, as the extension runtime applies it to the items a peer sends: any
// bytes either decode or are refused with an error, never both and never neither. What decodes
// archives again, and that archive decodes to a value that archives to the same bytes.
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzSupport.h"
#include "platform/foundation/NSKeyedArchiver.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lumaro::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    NSErrorPtr error;
    const QVariant root = NSKeyedUnarchiver::unarchiveObjectWithData(bytes, &error);
    if (root.isValid() == (error != nullptr)) {
        abort();  // a value and an error, or neither
    }
    if (!root.isValid()) {
        (void)error->localizedDescription();
        return 0;
    }
    NSErrorPtr archiveError;
    const QByteArray archive = NSKeyedArchiver::archivedDataWithRootObject(root, &archiveError);
    if (archiveError) {
        abort();  // a decoded value must archive again
    }
    NSErrorPtr againError;
    const QVariant again = NSKeyedUnarchiver::unarchiveObjectWithData(archive, &againError);
    if (againError || NSKeyedArchiver::archivedDataWithRootObject(again) != archive) {
        abort();  // our own archive does not come back as it went
    }
    return 0;
}
