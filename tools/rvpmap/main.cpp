// rvpmap: looks into volumes as a host of the provider. This file turns the command line into a
// session, runs the command and turns whatever happened into a message and an exit status.
#include "Logging.h"
#include "Messages.h"
#include "Session.h"
#include "Signals.h"
#include "Stack.h"
#include "StackVolume.h"
#include "Text.h"
#include "VolumeSource.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

bool wantsColours(Colour colour) {
    const char* noColour = std::getenv("NO_COLOR");
    const bool refused = noColour != nullptr && *noColour != '\0';
    return colour == Colour::ALWAYS ||
           (colour == Colour::AUTO && !refused && ::isatty(STDOUT_FILENO) == 1);
}

// A member of an array may look like the volume whose first bytes it holds.
void warnOfPart(const StackNode& node) {
    if (!node.children.empty()) {
        printMessage(node.name, fmt::format("{} lies on it; its own bytes are taken for a volume",
                                            shownName(node.children.front()->name)));
    }
}

ExitStatus dispatch(Session& session) {
    switch (session.options.command) {
    case Command::CLAIM:
        return runClaim(session);
    case Command::INFO:
        return runInfo(session);
    case Command::LIST:
        return runList(session);
    case Command::STAT:
        return runStat(session);
    case Command::EXTENTS:
        return runExtents(session);
    case Command::EXTRACT:
        return runExtract(session);
    case Command::CATALOG:
        return runCatalog(session);
    case Command::MAP:
        return runMap(session);
    case Command::OWNER:
        return runOwner(session);
    case Command::SCAN:
        break; // has no volume
    }
    return ExitStatus::USAGE;
}

// What was delivered before a failure is printed all the same.
ExitStatus runAndFlush(Session& session) {
    try {
        const ExitStatus status = dispatch(session);
        session.output.flush();
        return status;
    } catch (const ToolError&) {
        session.output.flush();
        throw;
    }
}

ExitStatus runOnVolume(const Options& options, const Layer& source, const Stack* stack) {
    const Provider provider(options.root);
    Volume volume(provider, source, options.volume);
    if (options.physical) {
        volume.readDataFromDisks();
    }
    if (options.command != Command::CLAIM) {
        volume.open();
        printState(volume);
    }
    Session session{options, volume, {}, Table(wantsColours(options.colour)), stack};
    return runAndFlush(session);
}

ExitStatus runOnStack(const Options& options, const Stack& stack) {
    if (options.command == Command::SCAN) {
        return runScan(options, stack);
    }
    const StackNode& node = findVolume(stack, options.volume);
    if (options.command == Command::OWNER && (node.parents.empty() || !node.children.empty())) {
        return runNodeOwner(options, stack, node, Table(wantsColours(options.colour)));
    }
    warnOfPart(node);
    return runOnVolume(options, *node.layer, &stack);
}

ExitStatus run(const Options& options) {
    if (options.disks.empty()) {
        return runOnVolume(options, *openVolumeSource(options.volume), nullptr);
    }
    Stack stack(options.disks);
    stack.discover();
    return runOnStack(options, stack);
}

// What messages are about where no file is named.
const std::string& subjectOf(const Options& options) {
    static const std::string DISKS = "disks";
    return options.command == Command::SCAN ? DISKS : options.volume;
}

ExitStatus runReported(const Options& options) {
    try {
        return run(options);
    } catch (const ToolError& error) {
        printMessage(subjectOf(options), error.what());
        return error.status();
    } catch (const OutputClosed&) {
        return ExitStatus::FAILED;
    } catch (const Interrupted& interrupted) {
        endBySignal(interrupted.signal());
    } catch (const std::exception& error) {
        printMessage(subjectOf(options), printable(error.what()));
        return ExitStatus::FAILED;
    }
}

} // namespace

int main(int count, char** arguments) {
    // A reader that has gone and a file that may not grow are errors of a write.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    ExitStatus status = ExitStatus::DONE;
    if (const auto options = parseOptions(count, arguments, &status)) {
        setUpLogging(*options);
        status = runReported(*options);
    }
    return static_cast<int>(status);
}
