// Manifest text, read as hgxrepo import reads it; what reads is written
// into a repository and exported, and the export must import and export
// again to the very same text: the round trip users rely on.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_util.h"
#include "hgxrepo.h"
#include "manifest.h"

namespace {

// A repository file of its own for each input, and nothing left of the
// last one's.
std::string fresh(const char* name) {
    const std::string path = fuzz::scratch_dir() + "/" + name;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    manifest::Document document;
    std::string error;
    manifest::quote(text);
    manifest::escape(text);
    if (manifest::parse(text, "<fuzz>", &document, &error) != 0) {
        if (error.empty()) fuzz::finding("a refused manifest without a message");
        return 0;
    }
    // What parse accepted is checked against the library's rules: the
    // writer must take it.
    const std::string first = fresh("first.db");
    if (hgxrepo_import_text(first, text, true, &error) != 0)
        fuzz::finding("an accepted manifest does not import", error);
    std::string exported;
    if (fuzz::hgxrepo({"-r", first, "export"}, &exported) != 0)
        fuzz::finding("an imported manifest does not export", text);
    const std::string second = fresh("second.db");
    if (hgxrepo_import_text(second, exported, true, &error) != 0)
        fuzz::finding("an export does not import", error + "\n" + exported);
    std::string again;
    if (fuzz::hgxrepo({"-r", second, "export"}, &again) != 0 || again != exported)
        fuzz::finding("an export changed on its way through import", exported + "\n---\n" + again);
    return 0;
}
