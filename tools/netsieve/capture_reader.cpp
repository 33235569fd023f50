#include "tools/netsieve/capture_reader.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

namespace netsieve::tool {

CaptureReader::~CaptureReader() {
    if (library_ != nullptr) {
        pcap_close(library_);
    }
}

std::optional<CaptureFailure> CaptureReader::Open(const std::string& path, bool rewindable) {
    name_ = path == "-" ? "standard input" : path;
    if (auto reason = source_.Open(path, rewindable)) {
        return CaptureFailure{CaptureFault::kCannotOpen,
                              fmt::format("cannot read {}: {}", name_, *reason)};
    }
    return OpenLibrary();
}

std::optional<CaptureFailure> CaptureReader::Rewind() {
    pcap_close(library_);
    library_ = nullptr;
    if (auto reason = source_.Rewind()) {
        return CaptureFailure{CaptureFault::kCannotOpen,
                              fmt::format("cannot read {} again: {}", name_, *reason)};
    }
    return OpenLibrary();
}

ReadOutcome CaptureReader::Next(CaptureFrame& frame) {
    pcap_pkthdr* header;
    const u_char* bytes;
    const int result = pcap_next_ex(library_, &header, &bytes);
    if (result == PCAP_ERROR_BREAK) {
        return ReadOutcome::kEnd;
    }
    if (result != 1) {
        failure_ = CaptureFailure{
            CaptureFault::kBrokenOff,
            fmt::format("{} cannot be read further after {} good frame{}: {}", name_, framesRead_,
                        framesRead_ == 1 ? "" : "s", pcap_geterr(library_))};
        return ReadOutcome::kFailed;
    }
    ++framesRead_;
    // Asked for nanoseconds, the library delivers them in the field for microseconds.
    frame.stamp = {header->ts.tv_sec, header->ts.tv_usec};
    frame.bytes = bytes;
    frame.capturedLength = header->caplen;
    frame.originalLength = header->len;
    return ReadOutcome::kFrame;
}

std::optional<CaptureFailure> CaptureReader::OpenLibrary() {
    framesRead_ = 0;
    failure_.reset();
    FILE* stream = source_.NewStream();
    if (stream == nullptr) {
        return CaptureFailure{CaptureFault::kCannotOpen,
                              fmt::format("cannot read {}: out of memory", name_)};
    }
    char words[PCAP_ERRBUF_SIZE] = "";
    library_ = pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, words);
    if (library_ == nullptr) {
        fclose(stream);
        return OpenFailure(words);
    }
    const int linkType = pcap_datalink(library_);
    if (linkType != DLT_EN10MB) {
        const char* linkName = pcap_datalink_val_to_name(linkType);
        return CaptureFailure{
            CaptureFault::kLinkType,
            fmt::format("{} has link type {} ({}); only Ethernet captures can be replayed", name_,
                        linkName != nullptr ? linkName : "unknown", linkType)};
    }
    header_ = source_.format().header;
    if (IsPcapng()) {
        header_.snapLength = static_cast<uint32_t>(pcap_snapshot(library_));
    }
    return std::nullopt;
}

CaptureFailure CaptureReader::OpenFailure(const char* libraryWords) const {
    const CaptureFormat& format = source_.format();
    if (source_.IsEmpty()) {
        return {CaptureFault::kNotACapture, fmt::format("{} is empty", name_)};
    }
    if (format.kind == CaptureFormat::Kind::kCompressed) {
        return {
            CaptureFault::kNotACapture,
            fmt::format("{} is compressed: unpack it and pipe it in, with '-' as its name", name_)};
    }
    if (format.kind == CaptureFormat::Kind::kUnknown) {
        return {CaptureFault::kNotACapture,
                fmt::format("{} is neither a pcap nor a pcapng file", name_)};
    }
    if (format.complete && !format.versionKnown) {
        return {
            CaptureFault::kUnsupportedVersion,
            fmt::format("{} has a format version that cannot be read: {}", name_, libraryWords)};
    }
    return {CaptureFault::kDamagedHeader,
            fmt::format("the file header of {} is damaged: {}", name_, libraryWords)};
}

}  // namespace netsieve::tool
