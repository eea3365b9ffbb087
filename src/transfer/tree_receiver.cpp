// The tree receiver and its free-space check. The receive itself is not written yet: it
// ends as failed after the general notice, which the job closes with a plain 260.
#include "transfer/tree_receiver.h"

#include <fcntl.h>
#include <sys/statvfs.h>

#include "platform/seams/syscalls.h"
#include "transfer/transfer_job.h"

namespace qvx {

uint32_t receive_tree(const DnDContext& ctx, const std::string&) {
    SendDialog(ctx, notice::kFailed.dialogId, notice::kFailed.code, u"");
    return kTransferFailed;
}

bool get_free_space(const std::string& folder, uint64_t* freeBytes) {
    const int fd = platform::sys_open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    struct statvfs vfs {};
    const int rc = platform::sys_fstatvfs(fd, &vfs);
    platform::sys_close(fd);
    if (rc != 0) return false;
    // Every free block, those kept for the superuser included. A product that does not fit
    // 64 bits is more than any transfer can announce.
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(vfs.f_bfree),
                               static_cast<uint64_t>(vfs.f_bsize), &bytes)) {
        bytes = UINT64_MAX;
    }
    *freeBytes = bytes;
    return true;
}

bool check_free_space(const DnDContext& ctx, const std::string& destination, uint64_t needed,
                      uint8_t report) {
    uint64_t freeBytes = 0;
    if (!get_free_space(destination, &freeBytes)) {
        if (report == 1) {
            SendDialog(ctx, notice::kSpaceUnknown.dialogId, notice::kSpaceUnknown.code, u"");
        }
        return false;
    }
    if (freeBytes > needed) return true;
    if (report == 1) SendDialog(ctx, notice::kNoSpace.dialogId, notice::kNoSpace.code, u"");
    return false;
}

}  // namespace qvx
