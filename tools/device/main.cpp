#include "tools/device/failure.h"
#include "tools/device/launch.h"
#include "tools/device/options.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        const Options options = read_options({argv + 1, argv + argc});
        if (options.help) {
            std::cout << help_text() << std::flush;
            return std::cout ? 0 : 1;
        }
        return run_device(options);
    } catch (const Failure& failure) {
        std::cerr << "device: " << failure.what() << "\n";
        return failure.status();
    } catch (const std::exception& failure) {
        std::cerr << "device: " << failure.what() << "\n";
        return static_cast<int>(ExitStatus::cannot_create);
    }
}
