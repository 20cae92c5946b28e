#include "common/filefuncs.h"

#include "common/argument_check.h"
#include "common/file_blocks.h"
#include "common/file_handle.h"
#include "common/messages.h"
#include "common/string_tokens.h"

#include <cstdio>
#include <limits>
#include <memory>

namespace {

constexpr const char* kUnit = "common/filefuncs";
constexpr std::size_t kBlockSize = 1023;

// What stands behind the last slash or backslash.
std::string base_name(const std::string& path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

}  // namespace

bool readfile(const char* szfile, std::string& content) {
    check_argument(szfile != nullptr, "szfile",
                   {kUnit, 15, "bool readfile(const char*, std::string&)"});
    const FileHandle file(std::fopen(szfile, "rb"));
    if (!file) {
        return false;
    }
    read_blocks(file.get(), kBlockSize, ReadEnd::kNothingRead, content);
    return true;
}

bool writefile(const char* szfile, const char* content, int length) {
    constexpr const char* function = "bool writefile(const char*, const char*, int)";
    check_argument(szfile != nullptr, "szfile", {kUnit, 37, function});
    check_argument(content != nullptr, "content", {kUnit, 38, function});
    FileHandle file(std::fopen(szfile, "wb"));
    if (!file) {
        return false;
    }
    // Without a buffer each fwrite tells what the device took.
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    const std::size_t wanted = length > 0 ? static_cast<std::size_t>(length) : 0;
    std::size_t written = 0;
    while (written < wanted) {
        const std::size_t took = std::fwrite(content + written, 1, wanted - written, file.get());
        if (took == 0) {
            break;
        }
        written += took;
    }
    const bool flushed = std::fflush(file.get()) == 0;
    const bool closed = std::fclose(file.release()) == 0;
    return flushed && closed && written == static_cast<std::size_t>(length);
}

NTiXmlElement* readfile2Ele(const char* szfile) {
    check_argument(szfile != nullptr, "szfile",
                   {kUnit, 60, "NTiXmlElement* readfile2Ele(const char*)"});
    constexpr std::size_t most = std::numeric_limits<int>::max();
    std::string content;
    if (!readfile(szfile, content) || content.size() > most) {
        print_message("Failed to read %s\n", szfile);
        return nullptr;
    }
    auto element = std::make_unique<NTiXmlElement>();
    element->Name() = "File";
    element->Text() = hex_encode_upper(content.data(), static_cast<int>(content.size()));
    element->AddAttribute("Name", escape_xml_text(base_name(szfile).c_str(), false));
    return element.release();
}

void read_version_attribute(std::string& version, const std::string& file) {
    version.clear();
    try {
        NTiXmlDoc document(file, true);
        document.Parse(nullptr);
        const NTiXmlElement* root = document.RootElement();
        const std::string* value = root == nullptr ? nullptr : root->AttributeValue("Version");
        if (value != nullptr) {
            version = *value;
        }
    } catch (const std::exception&) {
        version.clear();
    }
}
