// Whatever the two identity files hold, the device has one of the ten image types or none at all,
// and its product configuration is what the pipeline of programs would print.
#include "platform/image_id.h"
#include "platform/os_subtype.h"
#include "platform/system_identity.h"
#include "tests/fuzz/fake_device.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

void check_type(const std::string& image_id) {
    const bool is_described = ImageID::from_systeminfo().valid();
    try {
        const ImageID id = ImageID::current();
        expect(id.valid() && id.type() >= 1 && id.type() <= 10, "an identity without a type");
        const bool is_whole = image_id.size() >= 8 && image_id.compare(0, 8, id.text()) == 0;
        expect(is_described || is_whole, "another text");
        expect(create_os_subtype()->image_type() == id.type(), "another build");
    } catch (const ImageIDException&) {
        expect(!is_described && std::string(image_id.c_str()).size() < 8, "no identity is found");
        expect(current_image_type() == 10, "a type without an identity");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> texts = cut_input(data, size, 2);
    FakeDevice device;
    device.files["/etc/systeminfo"] = texts[0];
    device.files["/etc/imageid"] = texts[1];
    check_type(texts[1]);
    std::string configuration;
    expect(read_product_config(configuration), "no configuration");
    const std::string printed = product_configuration(texts[0]);
    expect(texts[0].size() >= 1000 || configuration == printed, "another configuration");
    const bool is_zero = configuration == "zero" || configuration == "Zero";
    expect(is_zero_product() == (is_zero && current_image_type() >= 8), "another product");
    return 0;
}
