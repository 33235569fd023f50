#include "tools/netsieve/replay_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/kernel/visible_text.h"
#include "tools/netsieve/capture_reader.h"
#include "tools/netsieve/capture_writer.h"
#include "tools/netsieve/mac_address.h"
#include "tools/netsieve/progress.h"
#include "tools/netsieve/replay_engine.h"
#include "tools/netsieve/replay_options.h"
#include "tools/netsieve/replay_report.h"

namespace netsieve::tool {
namespace {

/// Locally administered, so it is nobody's.
constexpr MacAddress kFallbackAddress = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};

/// The most frames in an NBL, and NBLs in a call.
constexpr std::uint32_t kMostPerUnit = 4096;

void PrintMessage(const std::string& message) {
    fmt::print(stderr, "netsieve: {}\n", host::VisibleText(message));
}

/// One replay from opening the capture to printing the summary.
class ReplayCommand {
  public:
    explicit ReplayCommand(const ReplayOptions& options) : options_(options) {
        report_.capture = options.capture == "-" ? "standard input" : options.capture;
        report_.output = options.output == "-" ? "standard output" : options.output;
        report_.driver = options.driver;
        report_.inject = options.inject == "-" ? "standard input" : options.inject;
        report_.pauseAt = options.pauseAt;
    }

    ExitStatus Run() {
        if (OpenCapture() && OpenInjection()) {
            ReplayFrames();
        }
        PrintProblems();
        PrintSummary();
        return report_.Status();
    }

  private:
    bool OpenCapture() {
        report_.inputFailure = reader_.Open(options_.capture, !options_.mac);
        if (report_.inputFailure) {
            return false;
        }
        if (!options_.output.empty() && reader_.source().IsSameFile(options_.output)) {
            report_.outputFailure =
                fmt::format("{} is the capture itself; choose another output", options_.output);
            return false;
        }
        report_.pcapng = reader_.IsPcapng();
        report_.precision = reader_.header().precision;
        return true;
    }

    bool OpenInjection() {
        if (options_.inject.empty()) {
            return true;
        }
        report_.injectFailure = feed_.Open(options_.inject);
        if (!report_.injectFailure && !options_.output.empty() &&
            feed_.source().IsSameFile(options_.output)) {
            report_.outputFailure = fmt::format(
                "{} is the capture to be injected; choose another output", options_.output);
        }
        return !report_.injectFailure && !report_.outputFailure;
    }

    void ReplayFrames() {
        AdapterReport adapter;
        if (!ChooseAddress(adapter)) {
            return;
        }
        Progress progress("replaying", reader_.source().size());
        // Log lines would mix with the progress bar.
        progress.SetEnabled(!LogsFrames());
        FILE* const log = LogStream();
        Replay(options_, adapter,
               {reader_, [this] { return OpenOutput(); }, progress, log,
                options_.inject.empty() ? nullptr : &feed_},
               report_);
        if (LogsFrames() && (std::fflush(log) != 0 || std::ferror(log) != 0)) {
            report_.logFailure = "the lines of the log hooks could not be written";
        }
        if (auto failure = writer_.Close()) {
            report_.outputFailure = failure;
        }
        report_.framesWritten = writer_.framesWritten();
    }

    bool ChooseAddress(AdapterReport& adapter) {
        if (options_.mac) {
            adapter.address = *options_.mac;
            return true;
        }
        MacVote vote;
        CountVotes(vote);
        const auto winner = vote.Result();
        adapter.origin = winner ? MacOrigin::kVoted : MacOrigin::kFallback;
        adapter.address = winner ? winner->address : kFallbackAddress;
        adapter.votes = winner ? winner->frames : 0;
        report_.inputFailure = reader_.Rewind();
        return !report_.inputFailure;
    }

    void CountVotes(MacVote& vote) {
        Progress progress("looking for the adapter's address", reader_.source().size());
        CaptureFrame frame;
        // A capture that breaks off does so again in the second pass, which reports it.
        while (reader_.Next(frame) == ReadOutcome::kFrame) {
            vote.Count(frame);
            progress.Update(reader_.framesRead(), reader_.source().position());
        }
    }

    bool LogsFrames() const {
        return std::any_of(options_.hooks.begin(), options_.hooks.end(),
                           [](const HookOption& hook) { return hook.kind == HookKind::kLog; });
    }

    /// Standard output stays free for the JSON summary or the frames.
    FILE* LogStream() const { return options_.json || options_.output == "-" ? stderr : stdout; }

    CaptureWriter* OpenOutput() {
        if (options_.output.empty()) {
            return nullptr;
        }
        report_.outputFailure = writer_.Open(options_.output, reader_.header());
        return report_.outputFailure ? nullptr : &writer_;
    }

    void PrintProblems() const {
        if (report_.inputFailure) {
            PrintMessage(report_.inputFailure->message);
        }
        if (report_.injectFailure) {
            PrintMessage(report_.injectFailure->message);
        }
        if (report_.driverFailure) {
            PrintMessage(*report_.driverFailure);
        }
        if (report_.outputFailure) {
            PrintMessage(*report_.outputFailure);
        }
        if (report_.logFailure) {
            PrintMessage(*report_.logFailure);
        }
    }

    void PrintSummary() const {
        // When the frames go to standard output, the summary must not mix with them.
        FILE* stream = options_.output == "-" ? stderr : stdout;
        if (options_.json) {
            std::fputs(FormatReportJson(report_).c_str(), stream);
        } else if (report_.ran) {
            std::fputs(FormatReport(report_).c_str(), stream);
        }
    }

    const ReplayOptions& options_;
    CaptureReader reader_;
    InjectionFeed feed_;
    CaptureWriter writer_;
    ReplayReport report_;
};

/// Nothing stands for "auto". Throws for what is no adapter's address.
std::optional<MacAddress> ParseAddress(const std::string& text) {
    if (text == "auto") {
        return std::nullopt;
    }
    const auto address = ParseMac(text);
    if (!address || !IsAdapterAddress(*address)) {
        throw CLI::ValidationError(
            "--mac",
            fmt::format("{} is not a unicast address like 00:00:5e:00:53:01, nor auto", text));
    }
    return address;
}

DirectionChoice ParseDirection(const std::string& text) {
    if (text == "auto") {
        return DirectionChoice::kAuto;
    }
    if (text == "send") {
        return DirectionChoice::kSend;
    }
    if (text == "receive") {
        return DirectionChoice::kReceive;
    }
    throw CLI::ValidationError("--direction",
                               fmt::format("{} is not one of auto, send, receive", text));
}

/// Takes decimal digits alone, where the library would take signs and other bases, and would let a
/// number that is too large stand for the largest.
std::function<std::string(const std::string&)> WholeNumber(std::uint64_t least,
                                                           std::uint64_t most) {
    return [=](const std::string& text) {
        std::uint64_t number = 0;
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, number);
        const bool good = error == std::errc() && rest == end && number >= least && number <= most;
        return good ? std::string()
                    : fmt::format("{} is no whole number from {} to {}", text, least, most);
    };
}

/// CLI11 turns what its own kind of exception says into the message and the status.
template <typename Check>
void CheckHookOption(const Check& check) {
    try {
        check();
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError("--hook", error.what());
    }
}

void AddTrafficOptions(CLI::App& command, ReplayOptions& options) {
    command
        .add_option_function<std::vector<std::string>>(
            "--hook",
            [&options](const std::vector<std::string>& texts) {
                CheckHookOption([&] {
                    for (const std::string& text : texts) {
                        options.hooks.push_back(ParseHookOption(text));
                    }
                });
            },
            "Register a hook: drop:EXPR withholds what the expression (as tcpdump's) selects, "
            "count:EXPR counts it, log or log:EXPR prints a line for it, delay:MS:EXPR marks it "
            "pending for MS milliseconds of the capture's time, hold:EXPR:success and "
            "hold:EXPR:failure "
            "until the end, with that completion, reply-arp:IP=MAC answers received requests "
            "for an address, driver:PATH loads a hook driver. What delay and hold cannot mark "
            "pending "
            "passes, or is withheld with :overflow=drop at the end. drop@N:EXPR and so on give the "
            "priority class, 0 (first, the default) to 4. May be repeated, for at most 63 hooks")
        ->type_name("SPEC")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command
        .add_option("--inject", options.inject,
                    "Have the driver send the frames of this second capture, each at its time, out "
                    "of the adapter whose address is its source; both captures' stamps count from "
                    "the same zero")
        ->type_name("CAPTURE");
    command
        .add_option("--pause-at", options.pauseAt,
                    "Pause and restart the adapter after N frames: what hooks hold then is flushed")
        ->type_name("N")
        ->check(WholeNumber(1, std::numeric_limits<std::uint64_t>::max()));
    command.add_option("--frames-per-nbl", options.framesPerNbl, "Frames in one NBL")
        ->type_name("N")
        ->check(WholeNumber(1, kMostPerUnit))
        ->capture_default_str();
    command
        .add_option("--nbls-per-call", options.nblsPerCall,
                    "NBLs in one call of the driver (default 1; 32 where only speed is wanted, "
                    "with --no-verify and without --seed and --faults)")
        ->type_name("N")
        ->check(WholeNumber(1, kMostPerUnit));
    command.add_flag("--resources", options.resourcesFlag,
                     "Indicate received NBLs with NDIS_RECEIVE_FLAGS_RESOURCES");
    command.add_flag(
        "--offload", options.offload,
        "Pass frames as adapters with offloads have them: without their outermost "
        "802.1Q tag, and when sent with unfinished checksums; the adapter finishes "
        "them by the out-of-band data of their NBL, so a frame that loses it is written "
        "as it would be sent");
}

void AddOptions(CLI::App& command, ReplayOptions& options) {
    command
        .add_option("CAPTURE", options.capture, "The capture, pcap or pcapng; - is standard input")
        ->required()
        ->type_name("");
    command
        .add_option("-o,--output", options.output,
                    "Write what leaves the driver to this pcap file; - is standard output")
        ->type_name("FILE");
    command
        .add_option("--driver", options.driver,
                    "The driver: native, or the path of a driver image (.sys)")
        ->type_name("native|FILE")
        ->capture_default_str();
    command
        .add_option_function<std::string>(
            "--mac", [&options](const std::string& text) { options.mac = ParseAddress(text); },
            "The adapter's address; auto takes the unicast address that occurs in most frames")
        ->type_name("ADDR|auto")
        ->default_str("auto");
    command
        .add_option_function<std::string>(
            "--direction",
            [&options](const std::string& text) { options.direction = ParseDirection(text); },
            "auto sends the frames whose source is the adapter's address and receives the "
            "others; send and receive force one way for all")
        ->type_name("auto|send|receive")
        ->default_str("auto");
    command
        .add_option("--seed", options.seed,
                    "Every random choice of the machine follows from this number (default 1), and "
                    "the replay is varied by it: sends and indications come from threads and DPCs "
                    "of any processor, NBLs are completed and returned inline, later or out of "
                    "order, the adapter goes and is back before the next frame, and a second "
                    "adapter comes and goes; the frames fare as without it")
        ->type_name("N")
        ->check(WholeNumber(0, std::numeric_limits<std::uint64_t>::max()));
    command.add_flag("--faults", options.faults,
                     "Make allocations and other calls that may fail do so, one in so many by the "
                     "seed; what does not come up for that is named, and is no failure");
    command.add_flag_callback(
        "--no-verify", [&options] { options.verify = false; },
        "Do not check the platform's rules: much faster");
    command.add_flag("--json", options.json, "Print the summary as JSON");
}

}  // namespace

void AddReplayCommand(CLI::App& app, ExitStatus& status) {
    auto options = std::make_shared<ReplayOptions>();
    CLI::App* command = app.add_subcommand(
        "replay", "Send the frames of a capture through the driver and say what became of them");
    command->footer(std::string(kExitStatusHelp));
    AddOptions(*command, *options);
    AddTrafficOptions(*command, *options);
    command->callback([options, &status] {
        CheckHookOption([&] { CheckHooks(options->hooks, options->driver); });
        if (options->capture == "-" && options->inject == "-") {
            throw CLI::ValidationError("--inject", "standard input is the capture already");
        }
        status = ReplayCommand(*options).Run();
    });
}

}  // namespace netsieve::tool
