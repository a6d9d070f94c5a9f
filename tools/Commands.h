// The subcommands of the brickdisk program. Each add...Command function adds
// its subcommand, with its options and --help, to the program's command line
// and returns the work to run when that subcommand is chosen; the work
// returns the exit status (0 success, 1 failure) and throws UsageError for a
// command line that cannot be carried out (status 2) and zo::CError for
// failures (status 1).
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace cli {

using CommandAction = std::function<int()>;

CommandAction addCreateCommand(CLI::App& program);
CommandAction addInfoCommand(CLI::App& program);
CommandAction addImportCommand(CLI::App& program);
CommandAction addExportCommand(CLI::App& program);
CommandAction addSnapshotCommand(CLI::App& program);
CommandAction addChildCommand(CLI::App& program);
CommandAction addCheckCommand(CLI::App& program);
CommandAction addDeleteCommand(CLI::App& program);
CommandAction addSnapshotsCommand(CLI::App& program);
CommandAction addForgetCommand(CLI::App& program);
CommandAction addCopyCommand(CLI::App& program);
CommandAction addDuCommand(CLI::App& program);
CommandAction addDiffCommand(CLI::App& program);
CommandAction addPasswdCommand(CLI::App& program);
CommandAction addKeyCommand(CLI::App& program);
CommandAction addServeCommand(CLI::App& program);
CommandAction addMountCommand(CLI::App& program);
CommandAction addUnmountCommand(CLI::App& program);
CommandAction addCacheCommand(CLI::App& program);

// The most worker threads a command takes (--jobs): more only cost memory
// and threads, since bricks are read, prepared and stored far fewer at a
// time than that.
constexpr int kMaxJobCount = 256;

// The default number of worker threads: one per processor, at most
// kMaxJobCount.
int defaultJobCount();

// Throws UsageError "--jobs must be between 1 and 256" for a count outside
// 1..kMaxJobCount.
void checkJobCount(int jobs);

} // namespace cli
