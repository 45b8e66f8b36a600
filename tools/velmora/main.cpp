// velmora: a local service for events, a sender for them, and a look at their queues, for developers and support.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "tools/velmora/command.h"

int main(int argc, char** argv) {
    CLI::App program("velmora: tools around the velmora telemetry library", "velmora");
    program.require_subcommand(1);
    int exitCode = velmora::tool::kExitOk;
    velmora::tool::registerCollector(program, exitCode);
    velmora::tool::registerConvert(program, exitCode);
    velmora::tool::registerInspect(program, exitCode);
    velmora::tool::registerSend(program, exitCode);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? velmora::tool::kExitOk : velmora::tool::kExitFailure;
    } catch (const std::exception& error) {
        std::cerr << "velmora: " << error.what() << std::endl;
        return velmora::tool::kExitFailure;
    }
    return exitCode;
}
