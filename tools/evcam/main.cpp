// evcam: list, stream and record event cameras, and make, inspect and play recordings, from
// the command line.
#include <CLI/CLI.hpp>

#include "commands.h"
#include "evcam/version.h"

int main(int argc, char** argv) {
    CLI::App app{"evcam - event camera kit tool"};
    app.set_version_flag("--version", std::string("evcam ") + evcam::GetLibraryVersion());
    app.require_subcommand(1);
    int status = 0;
    evcam::tool::AddSynthCommand(app, &status);
    evcam::tool::AddInfoCommand(app, &status);
    evcam::tool::AddPlayCommand(app, &status);
    evcam::tool::AddDevicesCommand(app, &status);
    evcam::tool::AddRecordCommand(app, &status);
    evcam::tool::AddLiveCommand(app, &status);
    CLI11_PARSE(app, argc, argv);
    return status;
}
