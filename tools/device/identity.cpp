#include "tools/device/identity.h"

#include "tools/device/failure.h"
#include "tools/device/file_work.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace {

struct IdentityRow {
    unsigned image_type;
    bool zero;
    IdentitySource source;
    std::string_view text;  ///< version for systeminfo, identifier for imageid
};

// The first fitting row is taken, so the usual source of a build stands before the other one.
constexpr std::array identity_rows = {
    IdentityRow{1, false, IdentitySource::imageid, "DXST0005"},
    IdentityRow{2, false, IdentitySource::imageid, "DXSQ0005"},
    IdentityRow{3, false, IdentitySource::imageid, "DXQU0005"},
    IdentityRow{4, false, IdentitySource::imageid, "DXST0020"},
    IdentityRow{5, false, IdentitySource::systeminfo, "3.1"},
    IdentityRow{5, false, IdentitySource::imageid, "DXAR0005"},
    IdentityRow{6, false, IdentitySource::imageid, "TXX40012"},
    IdentityRow{6, true, IdentitySource::systeminfo, "4.2"},
    IdentityRow{7, false, IdentitySource::systeminfo, "4.2"},
    IdentityRow{7, false, IdentitySource::imageid, "TXX41012"},
    IdentityRow{8, false, IdentitySource::systeminfo, "5.3"},
    IdentityRow{8, true, IdentitySource::systeminfo, "5.3"},
    IdentityRow{9, false, IdentitySource::systeminfo, "6.4"},
    IdentityRow{9, true, IdentitySource::systeminfo, "6.4"},
    IdentityRow{10, false, IdentitySource::systeminfo, "7.5"},
    IdentityRow{10, true, IdentitySource::systeminfo, "7.5"},
};

constexpr unsigned usual_image_type = 9;

const IdentityRow& find_identity(const Options& options) {
    const unsigned type = options.image_type.value_or(usual_image_type);
    const auto* row =
        std::find_if(identity_rows.begin(), identity_rows.end(), [&](const IdentityRow& each) {
            return each.image_type == type && each.zero == options.zero &&
                   (options.identity == IdentitySource::any || options.identity == each.source);
        });
    if (row == identity_rows.end()) {
        throw Failure(ExitStatus::usage, "image type " + std::to_string(type) +
                                             " has no identity of that kind (see device --help)");
    }
    return *row;
}

std::string systeminfo_text(const IdentityRow& row) {
    return std::string("PRODUCT_NAME=\"Sylvex\"\nPRODUCT_CONFIG=\"") +
           (row.zero ? "zero" : "standard") + "\"\nPRODUCT_VERSION=\"" + std::string(row.text) +
           "\"\n";
}

void write_table_identity(const Options& options, const std::filesystem::path& etc) {
    const IdentityRow& row = find_identity(options);
    if (row.source == IdentitySource::systeminfo) {
        write_file(etc / "systeminfo", systeminfo_text(row));
    } else {
        write_file(etc / "imageid", std::string(row.text) + "\n");
    }
}

void copy_if_given(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (!from.empty()) {
        copy_file(from, to, 0644);
    }
}

}  // namespace

void write_identity(const Options& options, const std::filesystem::path& etc) {
    constexpr unsigned no_identity = 0;
    const bool files_given = !options.systeminfo.empty() || !options.imageid.empty();
    const bool none = options.image_type == no_identity;
    if ((files_given || none) && (options.zero || options.identity != IdentitySource::any)) {
        throw Failure(ExitStatus::usage,
                      "--zero and --identity go with a numbered image type (see device --help)");
    }
    std::filesystem::remove(etc / "systeminfo");
    std::filesystem::remove(etc / "imageid");
    if (!none && (!files_given || options.image_type)) {
        write_table_identity(options, etc);
    }
    copy_if_given(options.systeminfo, etc / "systeminfo");
    copy_if_given(options.imageid, etc / "imageid");
}
