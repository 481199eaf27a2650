// plexactl: looks at and works on disk images and devices with the volume
// library: media geometry, the GPT view and the volume manager's header.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "storage/plexa.h"
#include "tools/plexactl/DeviceImageCommands.h"
#include "tools/plexactl/GptCommands.h"
#include "tools/plexactl/HeaderCommands.h"
#include "tools/plexactl/Image.h"
#include "tools/plexactl/Text.h"

using namespace qvl::plexactl;

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: plexactl geometry SIZE BLOCKSIZE\n"
    "       plexactl gpt show IMAGE\n"
    "       plexactl gpt resize IMAGE INDEX SIZE\n"
    "       plexactl gpt create IMAGE SIZE\n"
    "       plexactl gpt delete IMAGE INDEX\n"
    "       plexactl header create [--force] IMAGE\n"
    "       plexactl header show IMAGE\n"
    "       plexactl header check IMAGE\n"
    "       plexactl header repair [--strict] IMAGE\n"
    "       plexactl device-image create IMAGE --size SIZE --partition NAME:SIZE[:USED]...\n"
    "Sizes are bytes, or a number followed by K, M or G.\n";

constexpr char kDeviceImageHelp[] =
    "usage: plexactl device-image create IMAGE --size SIZE --partition NAME:SIZE[:USED]...\n"
    "Writes a new disk image of SIZE bytes as the volume manager presents the data disk:\n"
    "block 0 a protective MBR with the volume manager's mark, blocks 1 and 2 the GPT view\n"
    "with one HFS Plus partition per --partition (1 to 8, packed in the order given from\n"
    "block 6, random unique GUIDs; the header counts the partitions in use), and beside it\n"
    "IMAGE.volumes.plist, the volumes file that mounts every partition: \"System\" on /,\n"
    "\"Data\" on /private/var, any other NAME on /mnt/NAME, each USED bytes full (default 0).\n"
    "Names are ASCII, up to 36 characters. An existing IMAGE is never replaced.\n"
    "The sandbox binds such an image at /dev/rdisk0s1: tools/qvl-sandbox --disk IMAGE.\n";

using Args = std::vector<std::string>;

int usage(const char* form) {
    complain("usage: plexactl %s", form);
    return kUsageError;
}

bool size(const std::string& text, uint64_t& out) {
    std::optional<uint64_t> value = parseSize(text);
    if (!value) {
        complain("invalid size '%s' (bytes, or a number followed by K, M or G)", text.c_str());
        return false;
    }
    out = *value;
    return true;
}

bool index(const std::string& text, int& out) {
    std::optional<int> value = parseIndex(text);
    if (!value) {
        complain("invalid partition index '%s'", text.c_str());
        return false;
    }
    out = *value;
    return true;
}

int geometry(const Args& a) {
    if (a.size() != 2) return usage("geometry SIZE BLOCKSIZE");
    uint64_t mediaSize = 0, blockSize = 0;
    if (!size(a[0], mediaSize) || !size(a[1], blockSize)) return kUsageError;
    if (blockSize > UINT32_MAX) {
        complain("block size %s out of range", a[1].c_str());
        return 1;
    }
    PlexaMediaProperties g{};
    if (plexaInitMediaGeometry(&g, mediaSize, uint32_t(blockSize)) != 0) return 1;
    std::printf("mediaSize       %" PRIu64 "\n", g.mediaSize);
    std::printf("partitionSpace  %" PRIu64 "\n", g.partitionSpace);
    std::printf("chunkCount      %u\n", g.chunkCount);
    std::printf("blockSize       %u\n", g.blockSize);
    std::printf("blockShift      %u\n", g.blockShift);
    std::printf("chunkSize       %u\n", g.chunkSize);
    std::printf("chunkShift      %u\n", g.chunkShift);
    return 0;
}

int gpt(const std::string& verb, const Args& a) {
    int slot = 0;
    uint64_t bytes = 0;
    if (verb == "show") return a.size() == 1 ? gptShow(a[0]) : usage("gpt show IMAGE");
    if (verb == "resize") {
        if (a.size() != 3) return usage("gpt resize IMAGE INDEX SIZE");
        if (!index(a[1], slot) || !size(a[2], bytes)) return kUsageError;
        // Size 0 means deletion to the library; a resize never deletes.
        if (bytes == 0) {
            complain("a partition can't be resized to 0 bytes (use gpt delete)");
            return kUsageError;
        }
        return gptAdjust(a[0], slot, bytes);
    }
    if (verb == "create") {
        if (a.size() != 2) return usage("gpt create IMAGE SIZE");
        if (!size(a[1], bytes)) return kUsageError;
        return gptAdjust(a[0], std::nullopt, bytes);
    }
    if (verb == "delete") {
        if (a.size() != 2) return usage("gpt delete IMAGE INDEX");
        if (!index(a[1], slot)) return kUsageError;
        return gptAdjust(a[0], slot, 0);
    }
    complain("unknown gpt command '%s' (show, resize, create, delete)", verb.c_str());
    return kUsageError;
}

int header(const std::string& verb, Args a) {
    const std::string flag = verb == "create" ? "--force" : verb == "repair" ? "--strict" : "";
    bool flagged = false;
    if (!flag.empty() && !a.empty() && a[0] == flag) {
        flagged = true;
        a.erase(a.begin());
    }
    if (verb == "create")
        return a.size() == 1 ? headerCreate(a[0], flagged) : usage("header create [--force] IMAGE");
    if (verb == "show") return a.size() == 1 ? headerShow(a[0]) : usage("header show IMAGE");
    if (verb == "check") return a.size() == 1 ? headerCheck(a[0]) : usage("header check IMAGE");
    if (verb == "repair")
        return a.size() == 1 ? headerRepair(a[0], flagged) : usage("header repair [--strict] IMAGE");
    complain("unknown header command '%s' (create, show, check, repair)", verb.c_str());
    return kUsageError;
}

bool isHelpFlag(const std::string& arg) {
    return arg == "--help" || arg == "-h";
}

// "--help" after a command, or after a command and its verb, prints the usage
// lines of what was named instead of taking the flag for an image name. The
// words are matched against the usage text, so a new command is covered once
// it is listed there.
int helpFor(const Args& args) {
    std::vector<std::string> forms, notes;
    const std::string_view text = kUsage;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        const size_t at = line.find("plexactl ");
        if (at == std::string_view::npos) {
            notes.emplace_back(line);
        } else {
            forms.emplace_back(line.substr(at));
        }
    }
    auto matching = [&](const std::string& prefix) {
        std::vector<std::string> found;
        for (const std::string& form : forms) {
            if (form == prefix || form.starts_with(prefix + " ")) found.push_back(form);
        }
        return found;
    };
    std::string prefix = "plexactl";
    std::vector<std::string> found;
    for (const std::string& word : args) {
        if (isHelpFlag(word)) continue;
        std::vector<std::string> narrower = matching(prefix + " " + word);
        if (narrower.empty()) break;
        prefix += " " + word;
        found = std::move(narrower);
    }
    if (found.empty()) {
        complain("unknown command '%s' (geometry, gpt, header, device-image; --help lists them)",
                 args[0].c_str());
        return kUsageError;
    }
    for (size_t i = 0; i < found.size(); ++i)
        std::printf("%s%s\n", i ? "       " : "usage: ", found[i].c_str());
    for (const std::string& note : notes) std::printf("%s\n", note.c_str());
    return 0;
}

int deviceImage(const std::string& verb, const Args& a) {
    if (verb != "create") {
        complain("unknown device-image command '%s' (create)", verb.c_str());
        return kUsageError;
    }
    std::optional<std::string> image;
    std::optional<uint64_t> mediaSize;
    std::vector<PartitionRequest> partitions;
    for (size_t i = 0; i < a.size(); i++) {
        const bool hasValue = i + 1 < a.size();
        if (a[i] == "--size" && hasValue) {
            uint64_t bytes = 0;
            if (!size(a[++i], bytes)) return kUsageError;
            mediaSize = bytes;
        } else if (a[i] == "--partition" && hasValue) {
            std::optional<PartitionRequest> request = parsePartitionRequest(a[++i]);
            if (!request) return kUsageError;
            partitions.push_back(*request);
        } else if (!image && !a[i].starts_with("-")) {
            image = a[i];
        } else {
            return usage("device-image create IMAGE --size SIZE --partition NAME:SIZE[:USED]...");
        }
    }
    if (!image || !mediaSize || partitions.empty())
        return usage("device-image create IMAGE --size SIZE --partition NAME:SIZE[:USED]...");
    return deviceImageCreate(*image, *mediaSize, partitions);
}

}  // namespace

int main(int argc, char** argv) {
    Args args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? kUsageError : 0;
    }
    if (std::any_of(args.begin(), args.end(), isHelpFlag)) {
        // device-image create has more to say than its usage line.
        if (args.size() >= 2 && args[0] == "device-image" && args[1] == "create") {
            std::fputs(kDeviceImageHelp, stdout);
            return 0;
        }
        return helpFor(args);
    }
    const std::string command = args[0];
    if (command == "geometry") return geometry(Args(args.begin() + 1, args.end()));
    if (command == "gpt" || command == "header" || command == "device-image") {
        if (args.size() < 2)
            return usage(command == "gpt"      ? "gpt show|resize|create|delete ..."
                         : command == "header" ? "header create|show|check|repair ..."
                                               : "device-image create ...");
        Args rest(args.begin() + 2, args.end());
        if (command == "device-image") return deviceImage(args[1], rest);
        return command == "gpt" ? gpt(args[1], rest) : header(args[1], rest);
    }
    complain("unknown command '%s' (geometry, gpt, header, device-image; --help lists them)",
             command.c_str());
    return kUsageError;
}
