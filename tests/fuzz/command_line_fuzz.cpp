// The lines of the input are the arguments. The parser takes and refuses them as the plain model
// here does, and keeps the same of them.
#include "common/run_options.h"
#include "main/command_line.h"
#include "tests/fuzz/command_line_model.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments = arguments_of({reinterpret_cast<const char*>(data), size});
    const CommandLineModel model(arguments);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    run_options = RunOptions();
    const bool valid = parse_args(static_cast<int>(arguments.size()), pointers.data());
    expect(valid == model.valid, "taken or refused otherwise");
    if (valid) {
        expect(run_options.mode == model.mode, "another mode");
        expect(run_options.type == model.type && run_options.file == model.values.at("-f"),
               "another type or file");
        expect(run_options.user == model.values.at("-u"), "another user");
        expect(run_options.password == model.values.at("-p"), "another password");
        expect((run_options.remove != 0) == model.remove, "removal otherwise");
    }
    return 0;
}
