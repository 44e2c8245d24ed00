// Sub-commands of the evcam command-line tool.
#ifndef EVCAM_TOOLS_EVCAM_COMMANDS_H
#define EVCAM_TOOLS_EVCAM_COMMANDS_H

#include <CLI/CLI.hpp>

namespace evcam::tool {

/// Each Add* registers a sub-command on app; its callback runs the command and stores the
/// process exit status in *status.
void AddSynthCommand(CLI::App& app, int* status);
void AddInfoCommand(CLI::App& app, int* status);
void AddPlayCommand(CLI::App& app, int* status);
void AddDevicesCommand(CLI::App& app, int* status);
void AddRecordCommand(CLI::App& app, int* status);
void AddLiveCommand(CLI::App& app, int* status);

}  // namespace evcam::tool

#endif  // EVCAM_TOOLS_EVCAM_COMMANDS_H
