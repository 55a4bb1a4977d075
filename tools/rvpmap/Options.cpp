#include "Options.h"

#include <CLI/CLI.hpp>

#include <map>
#include <unistd.h>

namespace {

const char* const DESCRIPTION =
    "Shows which byte runs of a volume hold which files, and reads files back from those runs.\n"
    "Nothing is mounted, no root is needed, the volume is never written to.\n";

const char* const FOOTER =
    "A VOLUME is an image file or a block device; FILE@OFFSET starts OFFSET bytes into it\n"
    "(decimal, 0x hexadecimal, or with K, M, G, T behind it). With -d, it is the name of anything\n"
    "that scan finds on the disks.\n"
    "\n"
    "Examples:\n"
    "  rvpmap info disk.img                      what lies on the volume\n"
    "  rvpmap ls -l disk.img /home               a directory\n"
    "  rvpmap extents disk.img@1M /etc/fstab     a file of the partition at 1 MiB\n"
    "  rvpmap extract disk.img /etc/fstab -o -   the file's bytes\n"
    "  rvpmap -d a.img -d b.img scan             partitions, arrays, logical volumes\n"
    "  rvpmap -d a.img -d b.img ls md0 /home     a directory on an array\n"
    "  rvpmap COMMAND --help                     more on a command\n"
    "\n"
    "Exit status: 0 done; 1 not claimed, not found or of the wrong kind; 2 wrong usage;\n"
    "3 an error while opening, reading, mapping or writing.";

// One command: what CLI11 is told of it, besides its own options.
struct CommandText {
    Command command;
    const char* name;
    const char* description;
    const char* examples;
};

constexpr CommandText COMMANDS[] = {
    {Command::CLAIM, "claim", "Ask whether the provider recognises a file system on the volume",
     "Examples:\n"
     "  rvpmap claim disk.img          prints secondary, or none and ends with 1\n"
     "  rvpmap claim /dev/sdb1 --json\n"},
    {Command::INFO, "info", "Show the file system's name, UUID, kind and size",
     "Examples:\n"
     "  rvpmap info disk.img\n"
     "  rvpmap info disk.img@1048576 --json   a partition that starts at 1 MiB\n"},
    {Command::LIST, "ls", "List a directory",
     "Without -R, JSON and -U, names come sorted; else in the directory's own order.\n"
     "\n"
     "Examples:\n"
     "  rvpmap ls disk.img                  the names in the root directory\n"
     "  rvpmap ls -l disk.img /home         with mode, links, owner, size and time\n"
     "  rvpmap ls -R disk.img /etc          every path below /etc\n"
     "  rvpmap ls -R disk.img --json | jq -r '.[] | select(.size > 1000000) | .path'\n"},
    {Command::STAT, "stat", "Show the attributes of one file",
     "Symbolic links are not followed.\n"
     "\n"
     "Examples:\n"
     "  rvpmap stat disk.img /etc/fstab\n"
     "  rvpmap stat disk.img /etc/mtab --json    a symbolic link, with its target\n"},
    {Command::EXTENTS, "extents", "Show which byte runs of the volume hold a file",
     "All numbers are bytes; \"physical\" counts from the volume's start. Holes are not listed.\n"
     "A run is whole blocks, so the last one may reach past the file's size.\n"
     "\n"
     "Examples:\n"
     "  rvpmap extents disk.img /var/lib/db\n"
     "  rvpmap extents disk.img /home            a directory's own blocks\n"
     "  rvpmap extents disk.img /var/lib/db --json | jq '.extents | length'\n"
     "  rvpmap -d a.img -d b.img extents --physical md0 /etc/fstab    where on which disk\n"},
    {Command::EXTRACT, "extract", "Copy a file, or with -r a tree, out of the volume",
     "A file is read from the volume's own runs. It gets its permissions (without set-id bits)\n"
     "and times; holes stay holes. It gets its name when it is whole, so a run that fails or is\n"
     "interrupted leaves nothing behind.\n"
     "With -r, existing directories are filled up and existing files never overwritten. What\n"
     "could not be restored is listed at the end, and the exit status is then 3.\n"
     "\n"
     "Examples:\n"
     "  rvpmap extract disk.img /etc/fstab -o fstab\n"
     "  rvpmap extract disk.img /var/log/syslog -o - | grep error\n"
     "  rvpmap extract -r disk.img /home/ada -o restored\n"
     "  sudo rvpmap extract -r --owner disk.img / -o /mnt/new\n"},
    {Command::CATALOG, "catalog", "List every file of the volume with all its attributes",
     "The root comes first, then everything below it, depth first; a file with several hard links\n"
     "comes once for each. Without --format it is a table on a terminal, else ndjson.\n"
     "\n"
     "Examples:\n"
     "  rvpmap catalog disk.img\n"
     "  rvpmap catalog --extents --format ndjson disk.img > files.ndjson\n"
     "  rvpmap catalog --format csv disk.img > files.csv\n"
     "  rvpmap catalog --extents --format sqlite -o files.db disk.img\n"},
    {Command::MAP, "map", "Draw where the files lie on the volume",
     "The picture is an SVG file: rows of the volume's bytes from left to right and top to\n"
     "bottom, shaded by how much of them files hold. Each PATH, with everything below it, gets\n"
     "a colour of its own and a line in the legend.\n"
     "\n"
     "Examples:\n"
     "  rvpmap map disk.img -o map.svg\n"
     "  rvpmap map disk.img /home/ada /var/lib/db -o map.svg\n"
     "  rvpmap map disk.img /var/log -o - | rsvg-convert > map.png\n"},
    {Command::OWNER, "owner", "Tell which files own byte ranges of a volume or disk",
     "A RANGE is OFFSET or OFFSET+LENGTH from the volume's start, in bytes (decimal, 0x\n"
     "hexadecimal, or with K, M, G, T behind it); without a length it is one byte. --ddrescue\n"
     "adds the areas of a map file of GNU ddrescue that could not be read. The volume is walked\n"
     "once for all of them. With -d, a disk, partition or array can stand in place of the\n"
     "volume: its bytes are seen up through all that lies on it.\n"
     "\n"
     "Examples:\n"
     "  rvpmap owner disk.img 0x1F400000+4K 750M\n"
     "  rvpmap owner disk.img --ddrescue disk.map\n"
     "  rvpmap -d a.img -d b.img owner b.img --ddrescue b.map\n"
     "  rvpmap owner disk.img --ddrescue disk.map --json | jq -r '.[].path // empty' | sort -u\n"},
    {Command::SCAN, "scan", "Show what disks hold: partitions, arrays, logical volumes",
     "Disks are given by -d. Each name of the tree can stand as VOLUME for the other commands.\n"
     "\n"
     "Examples:\n"
     "  rvpmap -d a.img -d b.img -d c.img scan\n"
     "  rvpmap -d /dev/sdb scan --json | jq -r '.. | .name? // empty'\n"},
};

const std::map<std::string, int> LOG_LEVELS = {
    {"error", 1}, {"warning", 2}, {"info", 3}, {"debug", 4}};
const std::map<std::string, Colour> COLOURS = {
    {"auto", Colour::AUTO}, {"always", Colour::ALWAYS}, {"never", Colour::NEVER}};
const std::map<std::string, Format> FORMATS = {{"table", Format::TABLE},
                                               {"csv", Format::CSV},
                                               {"ndjson", Format::NDJSON},
                                               {"sqlite", Format::SQLITE}};

// What the parser cannot put into the options directly.
struct Raw {
    std::string logLevel;
    std::string colour = "auto";
    std::string format;
};

template <typename Value>
CLI::IsMember oneOf(const std::map<std::string, Value>& names) {
    std::vector<std::string> keys;
    for (const auto& name : names) {
        keys.push_back(name.first);
    }
    return CLI::IsMember(keys);
}

void addGlobals(CLI::App& app, Options& options, Raw& raw) {
    app.set_version_flag("-V,--version", "rvpmap " RVPMAP_VERSION);
    app.add_option("--log-level", raw.logLevel, "Show the provider's log lines up to this level")
        ->check(oneOf(LOG_LEVELS));
    app.add_flag("--trace", options.trace,
                 "Show all its log lines and calls; --trace=5 and --trace=6 show fewer calls");
    app.add_option("--color", raw.colour, "Colours: auto (on a terminal), always or never")
        ->check(oneOf(COLOURS));
    app.add_option("-d,--disk", options.disks,
                   "Disk image or block device on which VOLUME lies; may be repeated")
        ->allow_extra_args(false);
    app.add_option("--root", options.root,
                   "Folder that holds lib/libdorado.so and lib/map/rvp/libfso.so")
        ->envname("RVPMAP_ROOT");
}

CLI::App* addCommand(CLI::App& app, const CommandText& text, Options& options) {
    CLI::App* command = app.add_subcommand(text.name, text.description);
    command->footer(text.examples);
    command->fallthrough();
    if (text.command != Command::SCAN) {
        command
            ->add_option(
                "VOLUME", options.volume,
                "Image file, block device, FILE@OFFSET or, with -d, a name that scan shows")
            ->required();
    }
    command->add_flag("--json", options.json, "Print JSON");
    command->callback([&options, &text] { options.command = text.command; });
    return command;
}

void addCommandOptions(CLI::App& command, Command kind, Options& options, Raw& raw) {
    if (kind == Command::LIST || kind == Command::STAT || kind == Command::EXTENTS ||
        kind == Command::EXTRACT) {
        command.add_option("PATH", options.path, "Path from the volume's root");
    }
    if (kind == Command::LIST) {
        command.add_flag("-l,--long", options.details, "Show mode, links, owner, size and time");
        command.add_flag("-R,--recursive", options.recursive, "List everything below PATH");
        command.add_flag("-U,--unsorted", options.unsorted, "Keep the directory's own order");
    } else if (kind == Command::EXTENTS) {
        command.add_flag("--physical", options.physical, "Show the runs on the disks");
    } else if (kind == Command::EXTRACT) {
        command.add_flag("--physical", options.physical,
                         "Read by the runs on the disks, past all layers in between");
        command
            .add_option("-o,--output", options.output,
                        "File to write, - for standard output; with -r a directory")
            ->required();
        command.add_flag("-r,--recursive", options.recursive, "Restore a whole tree");
        command.add_flag("--owner", options.owners,
                         "With -r, as root: restore owners, groups and set-id bits");
    } else if (kind == Command::CATALOG) {
        command
            .add_option("--format", raw.format,
                        "table, csv, ndjson or sqlite (--json means ndjson)")
            ->check(oneOf(FORMATS));
        command.add_flag("--extents", options.extents, "Add the extents of every file");
        command.add_option("-o,--output", options.output, "Database to write, with sqlite");
    } else if (kind == Command::MAP) {
        command.add_option("PATH", options.paths, "Files and trees to colour");
        command.add_option("-o,--output", options.output, "File to write, - for standard output")
            ->required();
    } else if (kind == Command::OWNER) {
        command.add_option("RANGE", options.ranges, "OFFSET or OFFSET+LENGTH, bytes");
        command.add_option("--ddrescue", options.ddrescue, "Map file of GNU ddrescue");
    }
}

void addCommands(CLI::App& app, Options& options, Raw& raw) {
    app.require_subcommand(1);
    for (const CommandText& text : COMMANDS) {
        addCommandOptions(*addCommand(app, text, options), text.command, options, raw);
    }
}

// Without a number the flag only counts.
void interpretTrace(Options& options) {
    if (options.trace == 1) {
        options.trace = LAST_TRACE_LEVEL;
    }
    if (options.trace != 0 &&
        (options.trace < FIRST_TRACE_LEVEL || options.trace > LAST_TRACE_LEVEL)) {
        throw CLI::ValidationError("--trace", "takes 5, 6 or 7");
    }
}

void interpret(const Raw& raw, Options& options) {
    interpretTrace(options);
    options.colour = COLOURS.at(raw.colour);
    if (!raw.logLevel.empty()) {
        options.logLevel = LOG_LEVELS.at(raw.logLevel);
    }
    if (!raw.format.empty()) {
        options.format = FORMATS.at(raw.format);
    } else if (options.json || ::isatty(STDOUT_FILENO) == 0) {
        options.format = Format::NDJSON;
    }
}

// What the parser's own checks do not see.
void checkCombination(const Options& options, const Raw& raw) {
    if (options.command == Command::SCAN) {
        if (options.disks.empty()) {
            throw CLI::RequiredError("--disk");
        }
    } else if (options.volume.empty()) {
        throw CLI::ValidationError("VOLUME", "must not be empty");
    }
    if (options.recursive && options.output == "-") {
        throw CLI::ValidationError("--output", "a tree needs a directory, not standard output");
    }
    if (options.owners && !options.recursive) {
        throw CLI::ValidationError("--owner", "goes with -r");
    }
    if (options.command == Command::CATALOG && (raw.format == "sqlite") == options.output.empty()) {
        throw CLI::ValidationError("--output", "goes with --format sqlite, which needs it");
    }
    if (options.command == Command::OWNER && options.ranges.empty() && options.ddrescue.empty()) {
        throw CLI::RequiredError("RANGE or --ddrescue");
    }
    if (options.json && !raw.format.empty() && raw.format != "ndjson") {
        throw CLI::ValidationError("--json", "contradicts --format " + raw.format);
    }
}

std::string usageMessage(const CLI::App* /*app*/, const CLI::Error& error) {
    return std::string("rvpmap: ") + error.what() + "\nTry: rvpmap --help\n";
}

} // namespace

std::optional<Options> parseOptions(int count, char** arguments, ExitStatus* status) {
    Options options;
    Raw raw;
    CLI::App app(DESCRIPTION, "rvpmap");
    app.footer(FOOTER);
    app.failure_message(usageMessage);
    app.get_formatter()->column_width(28);
    addGlobals(app, options, raw);
    addCommands(app, options, raw);
    try {
        app.parse(count, arguments);
        checkCombination(options, raw);
        interpret(raw, options);
    } catch (const CLI::ParseError& error) {
        *status = app.exit(error) == 0 ? ExitStatus::DONE : ExitStatus::USAGE;
        return std::nullopt;
    }
    return options;
}
