#include "host/image/image_result.h"

namespace netsieve::host {

std::string_view ImageErrorName(ImageError error) {
    switch (error) {
        case ImageError::kUnreadable:
            return "unreadable";
        case ImageError::kTruncated:
            return "truncated";
        case ImageError::kNotAnImage:
            return "not-an-image";
        case ImageError::kWrongMachine:
            return "wrong-machine";
        case ImageError::kNotPe32Plus:
            return "not-pe32-plus";
        case ImageError::kBadHeader:
            return "bad-header";
        case ImageError::kTooLarge:
            return "too-large";
        case ImageError::kBadSections:
            return "bad-sections";
        case ImageError::kBadDirectory:
            return "bad-directory";
        case ImageError::kBadImports:
            return "bad-imports";
        case ImageError::kBadExports:
            return "bad-exports";
        case ImageError::kBadRelocations:
            return "bad-relocations";
        case ImageError::kBadUnwindData:
            return "bad-unwind-data";
        case ImageError::kWrongChecksum:
            return "wrong-checksum";
        case ImageError::kWrongSubsystem:
            return "wrong-subsystem";
        case ImageError::kWritableCode:
            return "writable-code";
        case ImageError::kBadEntryPoint:
            return "bad-entry-point";
        case ImageError::kUnsupported:
            return "unsupported";
        case ImageError::kImportByOrdinal:
            return "import-by-ordinal";
        case ImageError::kUnknownImports:
            return "unknown-imports";
        case ImageError::kNotRelocatable:
            return "not-relocatable";
        case ImageError::kNoMemory:
            return "no-memory";
    }
    return "unknown";
}

}  // namespace netsieve::host
