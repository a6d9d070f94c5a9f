// brickdisk: the command-line program over the brickdisk library. Makes
// disks, moves images in and out of them, takes snapshots and checks them.
//
// Exit status: 0 success, 1 failure, 2 a command line that cannot be carried
// out. Errors are one line on stderr: "brickdisk: " and the message with its
// context.
#include "Commands.h"
#include "DiskAccess.h"
#include "ErrorText.h"
#include "Interrupt.h"
#include "UsageError.h"

#include "brick/Version.h"
#include "zo/Error.h"
#include "zo/Log.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <thread>

namespace cli {

int defaultJobCount()
{
    const unsigned processors = std::thread::hardware_concurrency();
    return processors == 0 ? 1 : static_cast<int>(std::min<unsigned>(processors, kMaxJobCount));
}

void checkJobCount(int jobs)
{
    if (jobs < 1 || jobs > kMaxJobCount)
        throw UsageError("--jobs must be between 1 and " + std::to_string(kMaxJobCount));
}

} // namespace cli

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void printError(const std::string& message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "brickdisk: %s\n", message.c_str());
}

// The library logs the failures that it keeps rather than throws (a brick
// that could not be loaded or stored); the commands report those themselves,
// so the log reaches stderr only with --verbose.
void routeLibraryLog(bool verbose)
{
    if (verbose)
        return;
    zo::setLogSink([](zo::LogLevel, const zo::String&) {});
}

} // namespace

int main(int argc, char** argv)
{
    cli::installInterruptHandlers();
    CLI::App program("Stores a fixed-size virtual disk as a folder of compressed, encrypted brick files.", "brickdisk");
    program.require_subcommand(1);
    program.fallthrough();
    program.set_version_flag("--version", std::string("brickdisk ") + brick::getLibraryVersion());
    bool verbose = false;
    program.add_flag("-v,--verbose", verbose, "Also show what the library logs (failed brick loads and stores)");
    brick::StoreSettings stores;
    brick::CephClusterSettings& ceph = stores.ceph;
    program.add_option("--ceph-conf", ceph.configFile, "Ceph configuration file for rados://POOL/path disks")
        ->envname("CEPH_CONF");
    program.add_option("--ceph-id", ceph.clientId, "Ceph user for rados:// disks, without \"client.\"")
        ->capture_default_str();
    program
        .add_option("--ceph-lock-lease", ceph.lockLeaseSeconds,
                    "Seconds that the disk lock of a killed program keeps others out of a rados:// disk")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    program
        .add_option("--ceph-timeout", ceph.operationTimeoutSeconds,
                    "Seconds after which an operation on the Ceph cluster gives up with an error")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    brick::S3ServiceSettings& s3 = stores.s3;
    program.add_option("--s3-endpoint", s3.endpoint,
                       "S3 service of s3://BUCKET/path disks, e.g. https://minio.example:9000 (default: "
                       "AWS_ENDPOINT_URL, else AWS); the keys come from AWS_ACCESS_KEY_ID and "
                       "AWS_SECRET_ACCESS_KEY or ~/.aws/credentials");
    program.add_flag("--s3-virtual-host", s3.virtualHost,
                     "Address the bucket in the host name (https://BUCKET.host/) instead of the path");
    program.add_flag("--s3-no-conditional-put", s3.noConditionalPut,
                     "For S3 services that ignore If-None-Match: check before a store that must not replace");
    program
        .add_option("--s3-lock-lease", s3.lockLeaseSeconds,
                    "Seconds that the disk lock of a killed program keeps others out of an s3:// disk")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    program
        .add_option("--s3-attempts", s3.attempts,
                    "Tries of each S3 request that meets a time-out, a lost connection, 5xx or 429, before "
                    "the command fails (pauses from 0.2 s, doubling up to 5 s)")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();

    std::map<const CLI::App*, cli::CommandAction> actions;
    const auto add = [&](cli::CommandAction (*adder)(CLI::App&)) {
        cli::CommandAction action = adder(program);
        actions[program.get_subcommands({}).back()] = std::move(action);
    };
    add(cli::addCreateCommand);
    add(cli::addInfoCommand);
    add(cli::addImportCommand);
    add(cli::addExportCommand);
    add(cli::addSnapshotCommand);
    add(cli::addChildCommand);
    add(cli::addCheckCommand);
    add(cli::addSnapshotsCommand);
    add(cli::addDeleteCommand);
    add(cli::addForgetCommand);
    add(cli::addCopyCommand);
    add(cli::addDuCommand);
    add(cli::addDiffCommand);
    add(cli::addPasswdCommand);
    add(cli::addKeyCommand);
    add(cli::addServeCommand);
    add(cli::addMountCommand);
    add(cli::addUnmountCommand);
    add(cli::addCacheCommand);

    // CLI11 would take an unknown first word for a missing subcommand.
    if (argc > 1 && argv[1][0] != '-') {
        bool known = false;
        for (const CLI::App* command : program.get_subcommands({}))
            known = known || command->get_name() == argv[1];
        if (!known) {
            printError("unknown command '" + std::string(argv[1]) + "' (see brickdisk --help)");
            return kExitUsage;
        }
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return program.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return program.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return program.exit(e);
    } catch (const CLI::ParseError& e) {
        printError(std::string(e.what()) + " (see brickdisk --help)");
        return kExitUsage;
    }
    routeLibraryLog(verbose);
    cli::setStoreSettings(stores);

    try {
        for (const CLI::App* chosen : program.get_subcommands())
            return actions.at(chosen)();
        return kExitUsage;
    } catch (const cli::CInterrupted&) {
        printError("interrupted");
        return cli::kExitInterrupted;
    } catch (const cli::UsageError& e) {
        printError(e.what());
        return kExitUsage;
    } catch (const zo::CError& e) {
        printError(cli::describeForUser(e));
        return kExitFailure;
    } catch (const std::exception& e) {
        printError(e.what());
        return kExitFailure;
    }
}
