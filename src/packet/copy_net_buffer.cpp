#include "packet/copy_net_buffer.h"

#include "platform/runtime.h"

namespace {

// NULL when the pages cannot be mapped.
const UCHAR* SystemAddressOf(PMDL mdl) {
    if (mdl->MdlFlags & MDL_HAS_SYSTEM_ADDRESS) {
        return static_cast<const UCHAR*>(mdl->MappedSystemVa);
    }
    return static_cast<const UCHAR*>(MmMapLockedPagesSpecifyCache(
        mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
}

// Copies up to `length` bytes that start `skip` bytes into the chain, and returns how many.
ULONG CopyFromChain(PUCHAR destination, PMDL mdl, ULONG skip, ULONG length) {
    ULONG copied = 0;
    for (; mdl != nullptr && copied < length; mdl = mdl->Next) {
        const UCHAR* source = SystemAddressOf(mdl);
        if (source == nullptr) {
            break;
        }
        if (mdl->ByteCount <= skip) {
            skip -= mdl->ByteCount;
            continue;
        }
        ULONG here = mdl->ByteCount - skip;
        ULONG amount = here < length - copied ? here : length - copied;
        memcpy(destination + copied, source + skip, amount);
        copied += amount;
        skip = 0;
    }
    return copied;
}

// The way of every frame that does not lie in one mapped piece.
__attribute__((noinline)) ULONG FASTABI CopyPieces(const NET_BUFFER* netBuffer, NIRP* nirp) {
    ULONG length = netBuffer->DataLength;
    ULONG copied =
        CopyFromChain(nirp->Buffer, netBuffer->CurrentMdl, netBuffer->CurrentMdlOffset, length);
    RtlZeroMemory(nirp->Buffer + copied, length - copied);
    return copied;
}

constexpr ULONG VECTOR_SIZE = 16;
constexpr ULONG SHORT_COPY_LIMIT = 256;

void CopyVector(PUCHAR destination, const UCHAR* source) {
    __builtin_memcpy(destination, source, VECTOR_SIZE);
}

__attribute__((noinline)) void FASTABI CopyLong(PUCHAR destination,
                                                const UCHAR* source,
                                                ULONG length) {
    memcpy(destination, source, length);
}

// Short frames without a call: in the native build memcpy has the other calling convention, and ten
// vector registers to be saved before it cost more than the copy.
void CopyBytes(PUCHAR destination, const UCHAR* source, ULONG length) {
    if (length < VECTOR_SIZE || length > SHORT_COPY_LIMIT) {
        CopyLong(destination, source, length);
        return;
    }
    for (ULONG at = 0; at + VECTOR_SIZE < length; at += VECTOR_SIZE) {
        CopyVector(destination + at, source + at);
    }
    CopyVector(destination + length - VECTOR_SIZE, source + length - VECTOR_SIZE);
}

// The whole frame, when it lies in one piece that has a system address; else NULL.
const UCHAR* FindInOnePiece(const NET_BUFFER* netBuffer) {
    const MDL* mdl = netBuffer->CurrentMdl;
    if (mdl == nullptr || (mdl->MdlFlags & MDL_HAS_SYSTEM_ADDRESS) == 0) {
        return nullptr;
    }
    ULONGLONG end = static_cast<ULONGLONG>(netBuffer->CurrentMdlOffset) + netBuffer->DataLength;
    return end > mdl->ByteCount
               ? nullptr
               : static_cast<const UCHAR*>(mdl->MappedSystemVa) + netBuffer->CurrentMdlOffset;
}

}  // namespace

ULONG FASTABI CopyNetBufferToNirp(const NET_BUFFER* netBuffer, NIRP* nirp) {
    ULONG length = netBuffer->DataLength;
    nirp->DataLength = length;
    const UCHAR* source = FindInOnePiece(netBuffer);
    if (source == nullptr) {
        return CopyPieces(netBuffer, nirp);
    }
    CopyBytes(nirp->Buffer, source, length);
    return length;
}

void FASTABI CopyNirp(const NIRP* nirp, NIRP* copy) {
    copy->DataLength = nirp->DataLength;
    CopyBytes(copy->Buffer, nirp->Buffer, nirp->DataLength);
}
