// A small program that stands in for external tools in tests; plain C++ so that it starts fast
// and behaves the same everywhere.
//
// Usage: terncl_test_child MODE [ARGS...]
//   exit N                 exit with code N
//   echo TEXT...           write each TEXT and a line feed to standard output
//   streams OUT ERR        write OUT to standard output and ERR to standard error
//   large BYTES            write BYTES bytes to standard output
//   crash                  write a line, then abort
//   hang                   write "pid N", then sleep until killed
//   waitfile PATH          exit 0 once PATH exists
//   cwd                    write the working directory and each argument
// Copied as "fake-MODE", it plays a tool run by its name: every argument is passed on.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

namespace {

void write(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int run(const std::string& mode, const std::vector<std::string>& args) {
    const auto arg = [&](size_t i) {
        return i < args.size() ? args[i] : std::string();
    };
    if (mode == "exit")
        return std::atoi(arg(0).c_str());
    if (mode == "echo") {
        for (const auto& text : args)
            write(stdout, text + "\n");
        return 0;
    }
    if (mode == "streams") {
        write(stdout, arg(0));
        write(stderr, arg(1));
        return 0;
    }
    if (mode == "large") {
        write(stdout, std::string(static_cast<size_t>(std::atoll(arg(0).c_str())), 'x'));
        return 0;
    }
    if (mode == "crash") {
        write(stdout, "about to crash\n");
        std::abort();
    }
    if (mode == "hang") {
        write(stdout, "pid " + std::to_string(getpid()) + "\n");
        for (;;)
            sleepMs(1000);
    }
    if (mode == "waitfile") {
        while (!std::filesystem::exists(arg(0)))
            sleepMs(10);
        return 0;
    }
    if (mode == "cwd") {
        write(stdout, "cwd: " + std::filesystem::current_path().string() + "\n");
        for (const auto& text : args)
            write(stdout, "arg: " + text + "\n");
        return 0;
    }
    write(stderr, "unknown mode: " + mode + "\n");
    return 125;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string name = std::filesystem::path(argv[0]).stem().string();
    const std::string fakePrefix = "fake-";
    if (name.rfind(fakePrefix, 0) == 0)
        return run(name.substr(fakePrefix.size()), args);
    if (args.empty()) {
        write(stderr, "usage: terncl_test_child MODE [ARGS...]\n");
        return 125;
    }
    const std::string mode = args.front();
    args.erase(args.begin());
    return run(mode, args);
}
