// The subcommands of the tool. Each one adds itself and its options to the program; when it has run, it leaves its exit
// status in `exitCode`. A failure that ends it early is thrown as std::exception.
#pragma once

namespace CLI {
class App;
}

namespace velmora::tool {

enum ExitCode : int {
    kExitOk = 0,
    kExitIncomplete = 1,  // it worked, but not for all of its input, or found damage
    kExitFailure = 2,     // wrong usage, or nothing could be done
};

void registerCollect(CLI::App& program, int& exitCode);
void registerConvert(CLI::App& program, int& exitCode);
void registerInspect(CLI::App& program, int& exitCode);
void registerReconcile(CLI::App& program, int& exitCode);
void registerSend(CLI::App& program, int& exitCode);
// deliver and forget; nothing where the service side is not built.
void registerServiceSide(CLI::App& program, int& exitCode);

}  // namespace velmora::tool
