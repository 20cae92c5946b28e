// An export, whatever the registry client and the session files hold, ends with a result or an
// exception that is described; a connections file that it writes can be read again.
#include "common/result_codes.h"
#include "connections/conn.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/road.h"
#include "tests/fuzz/tree.h"

namespace {

void check_file(const std::string& type, const std::string& text) {
    NTiXmlDoc document;
    expect(parses(document, text), "the connections file is refused");
    const NTiXmlElement* root = document.RootElement();
    expect(root != nullptr && root->NameView() == type, "the root is not the type");
    bool has_connections = false;
    for (NTiXmlElementCursor connection(*root, "Connection"); connection; connection.Next()) {
        expect(connection->AttributeView("Name").has_value(), "a connection without a name");
        expect(connection->AttributeView("Enabled") == "yes", "a connection that is not enabled");
        has_connections = true;
    }
    expect((root->ChildElement("General", 0) != nullptr) == has_connections,
           "connections without their export, or the other way round");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const RoadInput input(data, size);
    FakeDevice device;
    input.Fill(device);
    const int result = run_handler(input, [](const RoadInput& road) {
        return get_conn(road.type, FakeDevice::kConnectionsFile, "", "");
    });
    expect(is_export_result(result), "another result");
    if (result == kSuccess) {
        check_file(input.type, device.files[FakeDevice::kConnectionsFile]);
    }
    return 0;
}
