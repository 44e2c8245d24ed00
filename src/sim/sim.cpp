#include "evcam/sim.h"

#include <cstdio>

#include "src/sim/backend_selection.h"
#include "src/sim/sim_config.h"

namespace evcam {
namespace sim {

namespace {

void Report(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

}  // namespace

DVS_ERROR Enable() {
    return UseSimulatedBus() ? ERR_SUCCESS : ERR_FUNCTION_DISABLED;
}

DVS_ERROR Configure(const char* spec) {
    if (!UseSimulatedBus()) {
        return ERR_FUNCTION_DISABLED;
    }
    std::vector<CameraConfig> cameras;
    std::string error;
    if (!ParseSimSpec(spec, cameras, error)) {
        Report(error);
        return ERR_PARA_ERROR;
    }
    size_t failed = 0;
    PlugError plugError;
    if (!ProcessSimulatedBus().PlugAll(cameras, failed, plugError)) {
        Report(FormatPlugError(kSimEnvironmentVariable, plugError, failed + 1));
        return ERR_PARA_ERROR;
    }
    return ERR_SUCCESS;
}

int Plug(const CameraConfig& config) {
    if (!UseSimulatedBus()) {
        return -1;
    }
    PlugError error;
    const int id = ProcessSimulatedBus().Plug(config, error);
    if (id < 0) {
        Report(FormatPlugError("evcam::sim::Plug", error, 0));
    }
    return id;
}

DVS_ERROR Unplug(int camera) {
    return ProcessSimulatedBus().Unplug(camera);
}

void UnplugAll() {
    ProcessSimulatedBus().UnplugAll();
}

DVS_ERROR ReadRegister(int camera, int slave, int reg, int& value) {
    return ProcessSimulatedBus().ReadRegister(camera, slave, reg, value);
}

DVS_ERROR WriteRegister(int camera, int slave, int reg, int value) {
    return ProcessSimulatedBus().WriteRegister(camera, slave, reg, value);
}

std::vector<ControlRequest> ControlLog(int camera) {
    return ProcessSimulatedBus().ControlLog(camera);
}

void ClearControlLog(int camera) {
    ProcessSimulatedBus().ClearControlLog(camera);
}

DVS_ERROR InjectFault(int camera, Fault fault, int count) {
    return ProcessSimulatedBus().InjectFault(camera, fault, count);
}

DVS_ERROR StartCapture(int camera) {
    return ProcessSimulatedBus().StartCapture(camera);
}

DVS_ERROR TakeCapture(int camera, std::vector<uint8_t>& bytes) {
    return ProcessSimulatedBus().TakeCapture(camera, bytes);
}

uint64_t BytesSent(int camera) {
    return ProcessSimulatedBus().BytesSent(camera);
}

}  // namespace sim
}  // namespace evcam
