// An import, whatever file and registry hold, ends with a result or an exception that is described.
// What it gives to the registry client can be read where its parts can be.
#include "connections/conn.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/road.h"
#include "tests/fuzz/tree.h"

namespace {

void check_imported(const RoadInput& input, const std::string& imported) {
    NTiXmlDoc file(FakeDevice::kConnectionsFile, true);
    file.Parse(nullptr);
    NTiXmlDoc general;
    NTiXmlDoc registry;
    NTiXmlDoc document;
    const std::string text = file.RootElement()->ChildElement("General", 0)->Text();
    const bool is_whole = input.registry.find('\0') == std::string::npos;
    if (is_whole && parses(general, text) && parses(registry, input.registry) &&
        prints_exactly(general) && prints_exactly(registry) && has_room(general)) {
        expect(parses(document, imported), "the import document is refused");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const RoadInput input(data, size);
    FakeDevice device;
    input.Fill(device);
    device.files[FakeDevice::kConnectionsFile] = input.file;
    const int result = run_handler(input, [](const RoadInput& road) {
        return set_conn(road.type, FakeDevice::kConnectionsFile, "", "", road.remove);
    });
    for (const std::string& imported : device.imported) {
        check_imported(input, imported);
    }
    expect(is_import_result(result), "another result");
    return 0;
}
