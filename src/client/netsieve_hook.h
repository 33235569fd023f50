/*
 * NetSieve hook filter interface.
 *
 * A hook filter is a kernel driver that is shown the frames which cross an Ethernet adapter, and
 * decides for each whether it may pass. It registers here, is told of every adapter, attaches
 * itself to those it wants to watch, and switches itself on with ITarnHKFlowControl.
 *
 * The header stands alone, as C and as C++. Where the kernel's own headers are used, include them
 * first: their types are taken then.
 *
 * Unless a function says otherwise, a missing pointer is refused with 0xC000000D
 * (STATUS_INVALID_PARAMETER) and nothing happens, and a pointer that is not missing must be good.
 * What a pointer leads to is resident memory wherever a function may be called at DISPATCH_LEVEL.
 */
/* Laid out by hand: this is the one file that every client reads. */
/* clang-format off */
#pragma once

#include <stddef.h>

#ifndef NTAPI /* no kernel headers yet */
#include <stdint.h>
#ifdef _WIN32
#define NTAPI
typedef wchar_t WCHAR;
#else
/* Outside Windows the interface keeps the calling convention and the types of Windows. */
#define NTAPI __attribute__((ms_abi))
#ifdef __cplusplus
typedef char16_t WCHAR;
#else
typedef uint_least16_t WCHAR; /* what char16_t is in C */
#endif
#endif
typedef void VOID;
typedef void* PVOID;
typedef char CHAR;
typedef uint8_t UCHAR;
typedef uint16_t USHORT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint64_t ULONGLONG;
typedef int32_t NTSTATUS;
typedef struct UNICODE_STRING {
    USHORT Length; /* in bytes, as the next */
    USHORT MaximumLength;
    WCHAR* Buffer;
} UNICODE_STRING;
#endif

#ifndef NETSIEVE_HOOK_API
#ifdef _WIN32
#define NETSIEVE_HOOK_API __declspec(dllimport)
#else
#define NETSIEVE_HOOK_API
#endif
#endif

#ifdef __cplusplus
#define NETSIEVE_LAYOUT(condition) static_assert(condition, #condition)
extern "C" {
#else
#define NETSIEVE_LAYOUT(condition) _Static_assert(condition, #condition)
#endif

/* ---- Handles ------------------------------------------------------------------------------- */

/* An adapter that the driver is bound to. Valid from AttachNotify until DetachNotify has returned;
 * a hook that is not attached to it is not told when it goes. */
typedef struct FILTER_MODULE FILTER_MODULE;
/* A registered hook. Valid until its deregistration. */
typedef struct HOOK_FILTER HOOK_FILTER;
/* The copy of one frame. Valid while the handler that got it runs, and for a hook that has marked
 * it pending until the hook has completed its last mark. */
typedef struct NIRP NIRP;

/* ---- Constants ----------------------------------------------------------------------------- */

/* What a hook's handlers answer. A frame is withheld when any hook answers other than 0; every
 * active hook is shown it all the same, and the last such answer in their order stands. */
#define HOOK_VERDICT_PASS 0
#define HOOK_VERDICT_WITHHOLD 1
#define HOOK_VERDICT_PENDING 2 /* withheld too; for a frame that the hook has marked pending */

/* The state of a hook. It is shown frames in HOOK_STATE_ACTIVE and HOOK_STATE_RESUMED, and in no
 * other. A new hook is HOOK_STATE_STOPPED. */
#define HOOK_STATE_ACTIVE 11u
#define HOOK_STATE_RESUMED 13u
#define HOOK_STATE_STOPPED 14u

/* Hooks see a frame in ascending order of priority, compared as unsigned numbers. Hooks of equal
 * priority have no order. The class given to ITarnHKRegisterFilter stands for a priority; a class
 * above the last stands for HOOK_PRIORITY_LAST. */
#define HOOK_CLASS_0 0u
#define HOOK_CLASS_1 1u
#define HOOK_CLASS_2 2u
#define HOOK_CLASS_3 3u
#define HOOK_PRIORITY_CLASS_0 2000u
#define HOOK_PRIORITY_CLASS_1 2100u
#define HOOK_PRIORITY_CLASS_2 2200u
#define HOOK_PRIORITY_CLASS_3 2300u
#define HOOK_PRIORITY_LAST 2400u

/* The most hooks that can be attached to one adapter. */
#define HOOK_MODULE_LIMIT 64u

#define HOOK_OPAQUE_SIZE 432

/* ---- Callbacks ----------------------------------------------------------------------------- */

/* `context` is always the argument of the registration. A callback that is NULL is skipped. */

/* An adapter is there: those that exist are announced by the registration before it returns, later
 * ones as they come. Here the hook attaches itself.
 *
 * Both notifications run at DISPATCH_LEVEL under a lock of the driver. They may call
 * ITarnHKAttachFilter, ITarnHKDettachFilter and ITarnHKFlowControl, and no other function of the
 * driver. */
typedef VOID(NTAPI* HOOK_ATTACH_NOTIFY)(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);

/* The adapter goes, or the hook is being deregistered: one call for each adapter that the hook is
 * attached to, however often. No handler is called for this adapter any more. What the hook leaves
 * attached is detached when the call returns.
 *
 * Marks that the hook still holds on frames of this adapter are void from here on: nothing may
 * complete them once the call has returned, so it waits for a completion that is under way. */
typedef VOID(NTAPI* HOOK_DETACH_NOTIFY)(FILTER_MODULE* module, HOOK_FILTER* hook, PVOID context);

/* The driver unloads. Runs at PASSIVE_LEVEL with no lock held. The hook is stopped; it still has
 * to be deregistered, here or later, but before the driver's unload routine has ended. */
typedef VOID(NTAPI* HOOK_UNLOAD_NOTIFY)(PVOID context);

/* Judges one frame: returns a HOOK_VERDICT_ value. Runs at IRQL <= DISPATCH_LEVEL with no lock
 * held, on several processors at once. It must not deregister its own hook.
 *
 * The frame is shown as the stack hands it over. With checksum offload the checksums of a sent
 * frame are not finished, with large-send offload it can be far longer than the MTU, and a VLAN
 * tag can be out-of-band data and not in the frame. */
typedef LONG(NTAPI* HOOK_PACKET_HANDLER)(PVOID context, NIRP* nirp);

/* ---- Registration blocks ------------------------------------------------------------------- */

/* In both blocks Name.MaximumLength is at least Name.Length + 2. The driver copies what it needs
 * of a block before the registration returns. */

typedef struct HOOK_FILTER_REGISTRATION {
    UNICODE_STRING Name;
    HOOK_ATTACH_NOTIFY AttachNotify;
    HOOK_DETACH_NOTIFY DetachNotify;
    HOOK_UNLOAD_NOTIFY UnloadNotify;
    UCHAR OpaqueData[HOOK_OPAQUE_SIZE]; /* not interpreted */
} HOOK_FILTER_REGISTRATION;
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION, Name) == 0);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION, AttachNotify) == 16);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION, DetachNotify) == 24);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION, UnloadNotify) == 32);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION, OpaqueData) == 40);
NETSIEVE_LAYOUT(sizeof(HOOK_FILTER_REGISTRATION) == 472);

typedef struct HOOK_FILTER_REGISTRATION_EX {
    UCHAR MajorVersion; /* the client's own; not tested, as the next */
    UCHAR MinorVersion;
    UCHAR Reserved1[6];
    HOOK_ATTACH_NOTIFY AttachNotify;
    HOOK_DETACH_NOTIFY DetachNotify;
    HOOK_UNLOAD_NOTIFY UnloadNotify;
    PVOID Reserved; /* kept, never called */
    HOOK_PACKET_HANDLER SendHandler;
    HOOK_PACKET_HANDLER ReceiveHandler;
    UCHAR OpaqueData[HOOK_OPAQUE_SIZE]; /* not interpreted */
    ULONG Priority;
    ULONG Reserved2;
    UNICODE_STRING Name; /* with a NUL right behind its Length bytes */
    ULONGLONG Reserved3;
} HOOK_FILTER_REGISTRATION_EX;
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, MinorVersion) == 1);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, AttachNotify) == 8);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, DetachNotify) == 16);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, UnloadNotify) == 24);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, Reserved) == 32);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, SendHandler) == 40);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, ReceiveHandler) == 48);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, OpaqueData) == 56);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, Priority) == 488);
NETSIEVE_LAYOUT(offsetof(HOOK_FILTER_REGISTRATION_EX, Name) == 496);
NETSIEVE_LAYOUT(sizeof(HOOK_FILTER_REGISTRATION_EX) == 520);

/* ---- Records that the queries fill ---------------------------------------------------------- */

/* A protocol's name in 8-bit characters, with a NUL behind them. */
typedef struct PROTOCOL_ENTRY {
    USHORT Length;        /* without the NUL */
    USHORT MaximumLength; /* of Buffer */
    CHAR* Buffer;
} PROTOCOL_ENTRY;
NETSIEVE_LAYOUT(offsetof(PROTOCOL_ENTRY, MaximumLength) == 2);
NETSIEVE_LAYOUT(offsetof(PROTOCOL_ENTRY, Buffer) == 8);
NETSIEVE_LAYOUT(sizeof(PROTOCOL_ENTRY) == 16);

/* What NDIS keeps about the protocol that sent a frame. The values have no published meaning. */
typedef struct HOOK_PROTOCOL_INFO {
    PVOID ProtocolHandle;
    ULONGLONG ProtocolValue;
    UCHAR ProtocolBytes[2];
    UCHAR Reserved[6];
    /* The caller sets Buffer and MaximumLength. What does not fit is cut off. */
    UNICODE_STRING ProtocolName;
} HOOK_PROTOCOL_INFO;
NETSIEVE_LAYOUT(offsetof(HOOK_PROTOCOL_INFO, ProtocolHandle) == 0);
NETSIEVE_LAYOUT(offsetof(HOOK_PROTOCOL_INFO, ProtocolValue) == 8);
NETSIEVE_LAYOUT(offsetof(HOOK_PROTOCOL_INFO, ProtocolBytes) == 16);
NETSIEVE_LAYOUT(offsetof(HOOK_PROTOCOL_INFO, ProtocolName) == 24);
NETSIEVE_LAYOUT(sizeof(HOOK_PROTOCOL_INFO) == 40);

/* What NDIS keeps about the adapter that a frame crosses. The values have no published meaning and
 * are named after their place. The driver writes the first 30 bytes and nothing behind them. */
typedef struct HOOK_ADAPTER_INFO {
    ULONGLONG Value56;
    ULONG Value120;
    ULONG Value124;
    ULONG Value464;
    ULONG Value476;
    UCHAR MacAddress[6];
} HOOK_ADAPTER_INFO;
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, Value56) == 0);
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, Value120) == 8);
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, Value124) == 12);
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, Value464) == 16);
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, Value476) == 20);
NETSIEVE_LAYOUT(offsetof(HOOK_ADAPTER_INFO, MacAddress) == 24);

/* ---- Registration ---------------------------------------------------------------------------- */

/*
 * Registers a hook and announces every adapter to it, in the order in which they came, before it
 * returns. An adapter that comes in the very moment of the registration may be missed; a driver
 * that registers before the adapters come, as at boot, misses none. The hook is stopped until
 * ITarnHKFlowControl starts it. `*hook` is its handle; it is written only on success, and belongs
 * to the driver.
 *
 * When the text of the new name contains the whole name of a registered hook (an empty name is
 * contained in every other), that hook is joined: its handle is returned, the block's callbacks,
 * priority and `context` count for nothing, and nothing is announced. The first of its
 * registrations that ends takes the hook down for all of them.
 *
 * Returns 0; 0xC000000D for a missing pointer other than `context`, for a name without a buffer or
 * without room for a NUL, and in the extended block for a name without that NUL; 0xC000009A when
 * the name cannot be copied; 0xC0000136 when there is no memory for the hook.
 *
 * IRQL <= DISPATCH_LEVEL; the block and the name must be readable there. Not from a notification
 * (UnloadNotify included).
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKRegisterFilterEx(
    const HOOK_FILTER_REGISTRATION_EX* registration,
    PVOID context,
    HOOK_FILTER** hook);

/* The same with the basic block: a hook that is told of adapters and never shown a frame, although
 * the adapters it is attached to have their traffic intercepted. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKRegisterFilter(const HOOK_FILTER_REGISTRATION* registration,
                                                       PVOID context,
                                                       ULONG priorityClass,
                                                       HOOK_FILTER** hook);

/*
 * Ends the caller's registration, always with status 0, and makes the caller's handle invalid.
 *
 * The first call takes the hook down, whoever else has joined it: it is shown nothing more, its
 * running handlers are waited for, 10 seconds at most, and it gets its DetachNotify for every
 * adapter it is attached to. No callback is made after the return, but a handler that did not end
 * within the wait still runs. Takes 100 milliseconds at least. A hook that the driver's unload has
 * passed already without an UnloadNotify to call gets no notifications, and this returns at once
 * unless a handler of it runs.
 *
 * The handles of others who have joined the hook stay valid until they end their registrations
 * too: attaching is refused, ITarnHKFlowControl does nothing, and this function returns once the
 * hook has been taken down.
 *
 * A hook that has an UnloadNotify and is deregistered by another thread while the driver unloads
 * may still get that call, or be in it, after the return: only when UnloadNotify has been, too, may
 * what it uses be freed.
 *
 * PASSIVE_LEVEL. From UnloadNotify, but not from a handler of this hook or another notification.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKDeregisterFilter(HOOK_FILTER* hook);

/* Sets the hook's state, a HOOK_STATE_ value; any other stops it. Counts from the next frame on. A
 * missing hook is ignored, and a hook that is being deregistered stays stopped. Any IRQL up to
 * DISPATCH_LEVEL, from everywhere. */
NETSIEVE_HOOK_API VOID NTAPI ITarnHKFlowControl(HOOK_FILTER* hook, ULONG state);

/* ---- Attachment ------------------------------------------------------------------------------ */

/*
 * Attaches the hook to the adapter once more: a hook that is attached twice is shown each frame
 * twice. Only from AttachNotify, or while the module is known to be there.
 *
 * Returns 0; 0xC000009A when the adapter has its HOOK_MODULE_LIMIT hooks, and 0xC000000D also when
 * the adapter has been told to all its hooks as going or the hook is being deregistered. Nothing
 * changes then. IRQL <= DISPATCH_LEVEL, from everywhere.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKAttachFilter(FILTER_MODULE* module, HOOK_FILTER* hook);

/* Undoes one attachment; returns 0 also when there is none. A handler that is running goes on. A
 * hook that detaches itself outside DetachNotify has completed its marks on frames of the adapter
 * before: it is not told any more when the adapter goes, and its marks go with it.
 * IRQL <= DISPATCH_LEVEL, from everywhere. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKDettachFilter(FILTER_MODULE* module, HOOK_FILTER* hook);

/* ---- Queries: from the handler that was given the NIRP, at its IRQL -------------------------- */

/* The bytes of the frame, from its Ethernet header on. They are a copy that belongs to the driver:
 * the frame itself cannot be changed through it. NULL for a missing NIRP. */
NETSIEVE_HOOK_API UCHAR* NTAPI ITarnHKGetBuffer(NIRP* nirp);

/* The length of the frame in bytes; 0 for a missing NIRP. */
NETSIEVE_HOOK_API ULONG NTAPI ITarnHKGetBufferLength(NIRP* nirp);

/* Gives the name of the protocol that sent the frame, or NULL when none did or none is known. The
 * entry belongs to the driver and lives as long as the adapter is there. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKGetProtocolName(NIRP* nirp, PROTOCOL_ENTRY** entry);

/* Does nothing and returns 0, whatever it is given. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKQueryProtocolName(PVOID first, PVOID second);

/* Describes the protocol that sent the frame. 0xC0000001 for a received frame, or one whose sender
 * is no protocol; 0xC000000D for one without a sender. The places it reads are known for NDIS 6.0,
 * 6.1, 6.20, 6.30 and 6.40; do not rely on it on any other. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKGetProtocolInfo(NIRP* nirp, HOOK_PROTOCOL_INFO* info);

/* Describes the adapter that the frame crosses. 0xC0000001 when the source of the frame does not
 * lead to an adapter, and on an NDIS version other than those above, then with the first 24 bytes
 * written; 0xC000000D for a frame without a source. */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKGetAdapterInfo(NIRP* nirp, HOOK_ADAPTER_INFO* info);

/* ---- Pending requests ------------------------------------------------------------------------ */

/*
 * Marks the frame pending, to be decided later: from the handler that was given the NIRP, which
 * then returns HOOK_VERDICT_PENDING. The driver makes a clone of the frame, which takes the
 * out-of-band data of the frame's NET_BUFFER_LIST with it. Several hooks may mark one frame, and
 * one hook several times; each mark has to be completed exactly once, with
 * ITarnHKCompleteRequest.
 *
 * Returns 0, or 0xC000009A when there is no memory or no NIRP for the clone (a pending frame
 * occupies two of the adapter's few NIRPs), when the adapter is paused, and when the frame is not
 * being offered any more. The frame is not pending then, and nothing is to be completed; a hook
 * that has nothing else in mind lets it pass. IRQL <= DISPATCH_LEVEL.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKMarkPending(NIRP* nirp);

/*
 * Completes one mark. With the last one the clone is sent, or indicated, when every completion had
 * status 0, else it is dropped. When the adapter is paused its pending frames are dropped, which a
 * hook is not told: the marks are completed all the same, with no other effect. Marks that are not
 * completed when the adapter's DetachNotify comes are void, and must not be completed after it has
 * returned. More completions than marks meet a later frame in the same NIRP: never make one.
 *
 * Returns 0. IRQL <= DISPATCH_LEVEL, from everywhere but AttachNotify and DetachNotify.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKCompleteRequest(NIRP* nirp, ULONG status);

/* ---- Injection ------------------------------------------------------------------------------- */

/*
 * Sends a copy of an Ethernet frame of `length` bytes out of every running adapter whose address is
 * the frame's source address (bytes 6 to 11): within the call at PASSIVE_LEVEL, from a worker
 * thread above it. Hooks are not shown it. No offload is asked for: the frame has its checksums
 * finished, is no longer than the adapter takes, and carries its VLAN tag. `frame` is resident
 * memory, whatever the caller's IRQL. The first argument is ignored.
 *
 * Returns 0 whatever becomes of the frame, also when it is missing, shorter than 12 bytes or longer
 * than 65535, and goes nowhere. IRQL <= DISPATCH_LEVEL, but not from a notification.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKSendPacket(PVOID reserved, const VOID* frame, ULONG length);

/* ---- The driver itself ----------------------------------------------------------------------- */

#define SYSINFO_CLASS_VERSION 0
#define SYSINFO_CLASS_ADD_BOOT_FILTER 6
#define SYSINFO_CLASS_REMOVE_BOOT_FILTER 7

/*
 * Does what `informationClass` says:
 *
 *   SYSINFO_CLASS_VERSION
 *       copies the driver's version to `buffer`, as 8-bit text with its NUL. *bufferSize must
 *       exceed its 8 bytes, else 0xC0000004. Any IRQL.
 *   SYSINFO_CLASS_ADD_BOOT_FILTER
 *       `buffer` is a NUL-terminated name of WCHARs, to be added to the boot filter list unless it
 *       is there in any case of letters. PASSIVE_LEVEL.
 *   SYSINFO_CLASS_REMOVE_BOOT_FILTER
 *       the same; if the name is there, every name that contains it in exactly this case is
 *       removed.
 *
 * Returns 0; 0xC000000D for a missing pointer or an empty name; 0xC00000BB for any other class. Of
 * the list: 0xC0000148 above PASSIVE_LEVEL; 0xC0000106 when the name does not fit; 0xC0000034 when
 * there is no list to remove from, or no service key; 0xC0000023 or 0x80000005 when the stored list
 * is longer than can be read, which leaves it as it is; else what the registry says. The first
 * argument is ignored, and only the first class reads `bufferSize`.
 */
NETSIEVE_HOOK_API NTSTATUS NTAPI ITarnHKSystemInformationEx(PVOID reserved,
                                                            LONG informationClass,
                                                            PVOID buffer,
                                                            ULONG* bufferSize);

#ifdef __cplusplus
} /* extern "C" */
#endif
