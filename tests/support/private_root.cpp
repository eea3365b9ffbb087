// The per-process private platform root for tests.
#include "support/private_root.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>

#include "platform/sim/platform_root.h"

namespace qvxtest {

const std::string& private_platform_root() {
    static const std::string root = [] {
        char templ[] = "/tmp/qvxroot.XXXXXX";
        const char* made = mkdtemp(templ);
        if (made) {
            setenv("QVX_PLATFORM_ROOT", made, 1);
            static const std::string dir = made;
            std::atexit([] {
                std::error_code ec;
                std::filesystem::remove_all(dir, ec);
            });
        }
        return platform::root();
    }();
    return root;
}

}  // namespace qvxtest
