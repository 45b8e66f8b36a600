// velmora: a local service for events, a sender for them, and a look at their queues, for developers and support.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>

#include "core/platform/process.h"
#include "tools/velmora/command.h"

int main(int argc, char** argv) {
    velmora::platform::prepareStandardStreams();
    CLI::App program("velmora: tools around the velmora telemetry library", "velmora");
    program.require_subcommand(1);
    int exitCode = velmora::tool::kExitOk;
    velmora::tool::registerCollect(program, exitCode);
    velmora::tool::registerConvert(program, exitCode);
    velmora::tool::registerInspect(program, exitCode);
    velmora::tool::registerReconcile(program, exitCode);
    velmora::tool::registerSend(program, exitCode);
    velmora::tool::registerServiceSide(program, exitCode);
    try {
        std::vector<std::string> arguments = velmora::platform::commandLineArguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
        program.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? velmora::tool::kExitOk : velmora::tool::kExitFailure;
    } catch (const std::exception& error) {
        std::cerr << "velmora: " << error.what() << std::endl;
        return velmora::tool::kExitFailure;
    }
    return exitCode;
}
