// The host's side of a guest-to-host transfer: one session per workerId that stores the
// items beneath the sink's folder.
#include "hostsim/tree_sink.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>

#include "channel/dnd_message.h"
#include "common/byte_order.h"
#include "hostsim/host.h"
#include "hostsim/progress.h"
#include "hostsim/wire_text.h"
#include "transfer/records.h"

namespace hostsim {

namespace dnd = qvx::dnd;
namespace le = qvx::le;

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr uint64_t kFirstWorkerId = 0x1000;
constexpr uint64_t kFolderBytes = 32;  // what the guest counts for a folder in its totals

// A name the host accepts: components separated by single slashes, none empty, "." or
// "..", and no NUL anywhere.
bool valid_name(std::string_view name) {
    if (name.empty() || name.find('\0') != std::string_view::npos) return false;
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        const std::string_view part = name.substr(start, slash - start);
        if (part.empty() || part == "." || part == "..") return false;
        if (slash == std::string_view::npos) return true;
        start = slash + 1;
    }
}

// Removes an item beneath `dirFd` without following any link; a missing item counts as
// removed.
bool remove_at(int dirFd, const char* name) {
    struct stat st {};
    if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return unlinkat(dirFd, name, 0) == 0;
    const int fd = openat(dirFd, name, kDirFlags);
    if (fd < 0) return false;
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* e = readdir(dir)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.emplace_back(e->d_name);
    }
    bool ok = true;
    for (const std::string& n : names) {
        if (!remove_at(fd, n.c_str())) {
            ok = false;
            break;
        }
    }
    closedir(dir);
    return ok && unlinkat(dirFd, name, AT_REMOVEDIR) == 0;
}

timespec to_timespec(uint64_t ticks) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(qvx::ticks_to_unix_seconds(ticks));
    if (ticks >= qvx::kTicks1601To1970)
        ts.tv_nsec =
            static_cast<long>((ticks - qvx::kTicks1601To1970) % qvx::kTicksPerSecond * 100);
    return ts;
}

// The text of a notice, for the progress display; broken text shows as empty.
std::string notice_text(const uint8_t* record) {
    std::u16string units;
    for (size_t at = dnd::kOffDialogText; at + 1 < dnd::kOffDialogCode; at += 2) {
        const char16_t u = static_cast<char16_t>(le::get16(record, at));
        if (u == 0) break;
        units += u;
    }
    std::string text;
    if (!utf16_to_utf8(units, text)) text.clear();
    return text;
}

}  // namespace

bool parse_conflict_policy(std::string_view text, ConflictPolicy& out) {
    if (text == "replace")
        out = ConflictPolicy::Replace;
    else if (text == "skip")
        out = ConflictPolicy::Skip;
    else if (text == "stop")
        out = ConflictPolicy::Stop;
    else
        return false;
    return true;
}

const char* state_name(SinkResult::State state) {
    switch (state) {
        case SinkResult::State::Running:
            return "running";
        case SinkResult::State::Done:
            return "done";
        case SinkResult::State::Failed:
            return "failed";
        case SinkResult::State::Stopped:
            return "stopped";
    }
    return "?";
}

// One transfer. Its messages come one at a time (the guest waits for each reply), but
// possibly on different connections, hence the lock.
class Session {
  public:
    Session(uint64_t workerId, const SinkOptions& options) : m_options(options) {
        m_result.workerId = workerId;
    }
    ~Session() { release(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Opens the folder; false when it cannot be had.
    bool open_root(std::string& why) {
        std::error_code ec;
        std::filesystem::create_directories(m_options.folder, ec);
        m_root = open(m_options.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (m_root < 0) why = "cannot open " + m_options.folder + ": " + std::strerror(errno);
        return m_root >= 0;
    }

    uint32_t handle(Exchange& ex) {
        std::lock_guard<std::mutex> lock(m_mutex);
        switch (ex.command) {
            case dnd::kCmdSendTotals:
                return on_totals(ex);
            case dnd::kCmdDialog:
                return on_notice(ex);
            case dnd::kCmdItemHeader:
                return on_header(ex);
            case dnd::kCmdSymlink:
                return on_link(ex);
            case dnd::kCmdDataBegin:
                return on_data_begin(ex);
            case dnd::kCmdWriteData:
                return on_chunk(ex);
            case dnd::kCmdDataEnd:
                // The file stays open for its 271, which applies mode and times through it.
                return dnd::kStatusSuccess;
            case dnd::kCmdRemoveItem:
                return on_remove(ex);
            case dnd::kCmdItemAttributes:
                return on_attributes(ex);
            case dnd::kCmdEnd:
                on_end();
                return dnd::kStatusSuccess;
            default:
                return dnd::kStatusSuccess;
        }
    }

    bool ended() const { return m_ended; }
    SinkResult result() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_result;
    }

  private:
    uint32_t refuse(std::string why) {
        if (m_result.refusal.empty()) m_result.refusal = std::move(why);
        return kSinkRefused;
    }

    // The record's item name as a checked UTF-8 name; false (with the reason) otherwise.
    bool read_name(const Exchange& ex, qvx::ItemInfo& item, std::string& name, std::string& why) {
        if (qvx::read_file_entry(ex.request.data(), ex.request.size(), item) !=
            qvx::ReplyRead::Ok) {
            why = "malformed name field";
            return false;
        }
        if (!utf16_to_utf8(item.name, name) || !valid_name(name)) {
            why = "unacceptable name \"" + name + "\"";
            return false;
        }
        return true;
    }

    // The folder that holds `name`, as a descriptor the session keeps (do not close it),
    // and the item's last component. Walks one component at a time with O_NOFOLLOW.
    int parent_of(const std::string& name, std::string& leaf, std::string& why) {
        const size_t slash = name.rfind('/');
        leaf = slash == std::string::npos ? name : name.substr(slash + 1);
        if (slash == std::string::npos) return m_root;
        const std::string parent = name.substr(0, slash);
        if (m_dirFd >= 0 && parent == m_dirPath) return m_dirFd;

        // Items come depth first: start from the cached folder when it lies on the way.
        int from = m_root;
        size_t start = 0;
        if (m_dirFd >= 0 && parent.size() > m_dirPath.size() &&
            parent.compare(0, m_dirPath.size(), m_dirPath) == 0 &&
            parent[m_dirPath.size()] == '/') {
            from = m_dirFd;
            start = m_dirPath.size() + 1;
        }
        int fd = from;
        while (start <= parent.size()) {
            size_t end = parent.find('/', start);
            if (end == std::string::npos) end = parent.size();
            const std::string part = parent.substr(start, end - start);
            const int next = openat(fd, part.c_str(), kDirFlags);
            const int error = errno;
            if (fd != from) close(fd);
            if (next < 0) {
                why = "cannot open folder of \"" + name + "\": " + std::strerror(error);
                return -1;
            }
            fd = next;
            start = end + 1;
        }
        forget_dir();
        m_dirFd = fd;
        m_dirPath = parent;
        return fd;
    }

    void forget_dir() {
        if (m_dirFd >= 0) close(m_dirFd);
        m_dirFd = -1;
        m_dirPath.clear();
    }

    void close_file() {
        if (m_fileFd >= 0) close(m_fileFd);
        m_fileFd = -1;
        m_fileName.clear();
    }

    void release() {
        close_file();
        forget_dir();
        if (m_root >= 0) close(m_root);
        m_root = -1;
    }

    uint32_t on_totals(const Exchange& ex) {
        const uint8_t* r = ex.request.data();
        m_result.announcedBytes = le::get64(r, dnd::kOffTotalBytes);
        m_result.announcedItems = le::get32(r, dnd::kOffItemCount);
        m_result.topLevel = le::get32(r, dnd::kOffTopLevelCount);
        ++m_result.totalsMessages;
        return dnd::kStatusSuccess;
    }

    uint32_t on_notice(const Exchange& ex) {
        const uint8_t* r = ex.request.data();
        const uint32_t id = le::get32(r, dnd::kOffDialogId);
        if (id == 2) return answer_conflict(notice_text(r));
        if (id == 4) m_result.failureCodes.push_back(le::get32(r, dnd::kOffDialogCode));
        return dnd::kStatusSuccess;
    }

    uint32_t answer_conflict(const std::string& name) {
        uint32_t answer = dnd::kStatusStop;
        if (m_options.onConflict) {
            answer = m_options.onConflict(name);
        } else if (m_options.policy == ConflictPolicy::Replace) {
            answer = dnd::kStatusReplace;
        } else if (m_options.policy == ConflictPolicy::Skip) {
            answer = dnd::kStatusSkip;
        }
        if (answer == dnd::kStatusReplace) ++m_result.replaced;
        if (answer == dnd::kStatusSkip) ++m_result.skipped;
        if (answer == dnd::kStatusStop || answer == dnd::kStatusStopAlso) m_stopped = true;
        return answer;
    }

    // 265 and 770 first ask whether the name is free; 1 tells the guest it exists.
    uint32_t on_header(const Exchange& ex) {
        qvx::ItemInfo item;
        std::string name, leaf, why;
        if (!read_name(ex, item, name, why)) return refuse("265: " + why);
        const int dir = parent_of(name, leaf, why);
        if (dir < 0) return refuse("265: " + why);
        struct stat st {};
        if (fstatat(dir, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return dnd::kStatusExists;
        if (errno != ENOENT) return refuse("265: cannot look at \"" + name + "\"");
        if (item.attributes & qvx::kAttrDirectory) {
            // Owner-only until the folder's own 271 sets its mode, after its contents.
            if (mkdirat(dir, leaf.c_str(), 0700) != 0)
                return refuse("265: cannot create folder \"" + name +
                              "\": " + std::strerror(errno));
        }
        return dnd::kStatusSuccess;
    }

    uint32_t on_link(const Exchange& ex) {
        qvx::ItemInfo item;
        std::string name, leaf, why;
        if (!read_name(ex, item, name, why)) return refuse("770: " + why);
        const uint32_t bytes = le::get32(ex.request.data(), dnd::kOffDataLength);
        if (bytes % 2 != 0 || bytes > ex.request.size() - dnd::kMessageSize)
            return refuse("770: bad target length");
        std::u16string units(bytes / 2, u'\0');
        for (size_t i = 0; i < units.size(); ++i)
            units[i] = static_cast<char16_t>(le::get16(ex.request.data(), dnd::kOffData + 2 * i));
        std::string target;
        if (!utf16_to_utf8(units, target) || target.empty() ||
            target.find('\0') != std::string::npos)
            return refuse("770: unusable target of \"" + name + "\"");
        for (char& c : target)
            if (c == '\\') c = '/';
        const int dir = parent_of(name, leaf, why);
        if (dir < 0) return refuse("770: " + why);
        struct stat st {};
        if (fstatat(dir, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return dnd::kStatusExists;
        // The target is stored as it came and never resolved here.
        if (symlinkat(target.c_str(), dir, leaf.c_str()) != 0)
            return refuse("770: cannot create link \"" + name + "\": " + std::strerror(errno));
        return dnd::kStatusSuccess;
    }

    uint32_t on_data_begin(const Exchange& ex) {
        qvx::ItemInfo item;
        std::string name, leaf, why;
        if (!read_name(ex, item, name, why)) return refuse("266: " + why);
        const int dir = parent_of(name, leaf, why);
        if (dir < 0) return refuse("266: " + why);
        close_file();
        // The 265 found the name free; O_EXCL keeps an item made since then, or a link,
        // from being written through.
        m_fileFd =
            openat(dir, leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (m_fileFd < 0)
            return refuse("266: cannot create \"" + name + "\": " + std::strerror(errno));
        m_fileName = name;
        return dnd::kStatusSuccess;
    }

    uint32_t on_chunk(const Exchange& ex) {
        if (m_fileFd < 0) return refuse("269: no file open");
        const uint32_t n = le::get32(ex.request.data(), dnd::kOffDataLength);
        if (n == 0 || n > dnd::kMaxChunk || n > ex.request.size() - dnd::kMessageSize)
            return refuse("269: bad data length");
        const uint8_t* data = ex.request.data() + dnd::kOffData;
        for (uint32_t done = 0; done < n;) {
            const ssize_t w = write(m_fileFd, data + done, n - done);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0)
                return refuse("269: cannot write \"" + m_fileName + "\": " + std::strerror(errno));
            done += static_cast<uint32_t>(w);
        }
        m_result.bytes += n;
        return dnd::kStatusSuccess;
    }

    uint32_t on_remove(const Exchange& ex) {
        qvx::ItemInfo item;
        std::string name, leaf, why;
        if (!read_name(ex, item, name, why)) return refuse("270: " + why);
        if (name == m_fileName) close_file();
        // The cached folder may be the one removed, or lie inside it.
        forget_dir();
        const int dir = parent_of(name, leaf, why);
        if (dir < 0) return refuse("270: " + why);
        if (!remove_at(dir, leaf.c_str()))
            return refuse("270: cannot remove \"" + name + "\": " + std::strerror(errno));
        return dnd::kStatusSuccess;
    }

    uint32_t on_attributes(const Exchange& ex) {
        qvx::ItemInfo item;
        std::string name, leaf, why;
        if (!read_name(ex, item, name, why)) return refuse("271: " + why);
        // The creation time and the locked and invisible bits have no place on this host
        // and are dropped. The mode goes first: a folder without write permission still
        // takes its times.
        const timespec times[2] = {to_timespec(item.accessTime),
                                   to_timespec(item.modificationTime)};
        const mode_t mode = item.mode & 07777;
        if (m_fileFd >= 0 && name == m_fileName) {
            // The file just written: through its descriptor, no name to resolve again.
            const bool ok =
                (!item.modeValid || fchmod(m_fileFd, mode) == 0) && futimens(m_fileFd, times) == 0;
            const int error = errno;
            close_file();
            if (!ok)
                return refuse("271: cannot apply to \"" + name + "\": " + std::strerror(error));
            ++m_result.items;
            return dnd::kStatusSuccess;
        }
        const int dir = parent_of(name, leaf, why);
        if (dir < 0) return refuse("271: " + why);
        struct stat st {};
        if (fstatat(dir, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return refuse("271: \"" + name + "\" is missing");
        bool ok = true;
        if (S_ISLNK(st.st_mode)) {
            // A link has no mode of its own here.
            ok = utimensat(dir, leaf.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
        } else {
            const int fd =
                openat(dir, leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            ok = fd >= 0 && (!item.modeValid || fchmod(fd, mode) == 0) && futimens(fd, times) == 0;
            const int error = errno;
            if (fd >= 0) close(fd);
            errno = error;
        }
        if (!ok) return refuse("271: cannot apply to \"" + name + "\": " + std::strerror(errno));
        ++m_result.items;
        if (S_ISDIR(st.st_mode)) m_result.bytes += kFolderBytes;
        return dnd::kStatusSuccess;
    }

    void on_end() {
        release();
        if (!m_result.failureCodes.empty())
            m_result.state = SinkResult::State::Failed;
        else if (m_stopped)
            m_result.state = SinkResult::State::Stopped;
        else
            m_result.state = SinkResult::State::Done;
        m_ended = true;
    }

    const SinkOptions m_options;  // a copy: a session may outlive its sink
    mutable std::mutex m_mutex;
    SinkResult m_result;
    int m_root = -1;
    int m_dirFd = -1;       // the folder of the last item, kept for its siblings
    std::string m_dirPath;  // its name relative to the root
    int m_fileFd = -1;
    std::string m_fileName;
    bool m_stopped = false;
    bool m_ended = false;
};

struct SinkShared {
    SinkOptions options;
    std::mutex mutex;  // guards the members below
    std::map<uint64_t, std::shared_ptr<Session>> running;
    std::set<uint64_t> installed;  // workers whose handler the sink set on the host
    std::vector<SinkResult> finished;
    std::atomic<uint64_t> nextWorkerId{kFirstWorkerId};
};

namespace {

// The session running for `workerId`, or a new one; null when the folder cannot be opened.
std::shared_ptr<Session> session_for(SinkShared& shared, uint64_t workerId) {
    std::lock_guard<std::mutex> lock(shared.mutex);
    if (auto it = shared.running.find(workerId); it != shared.running.end()) return it->second;
    auto session = std::make_shared<Session>(workerId, shared.options);
    std::string why;
    if (!session->open_root(why)) return nullptr;
    shared.running[workerId] = session;
    return session;
}

// Hands every message of `workerId`'s transfers to its session; `ended` runs after a
// transfer's 260 has been stored as finished.
Handler route(const std::shared_ptr<SinkShared>& shared, uint64_t workerId,
              std::function<void()> ended) {
    std::weak_ptr<SinkShared> weak = shared;
    Handler handler = [weak, workerId, ended = std::move(ended)](Exchange& ex) -> uint32_t {
        auto s = weak.lock();
        if (!s) return dnd::kStatusSuccess;
        const auto session = session_for(*s, workerId);
        if (!session) return kSinkRefused;
        const uint32_t status = session->handle(ex);
        if (session->ended()) {
            {
                std::lock_guard<std::mutex> lock(s->mutex);
                s->finished.push_back(session->result());
                s->running.erase(workerId);
            }
            if (ended) ended();
        }
        return status;
    };
    if (shared->options.progress)
        handler = observe_progress(*shared->options.progress, workerId,
                                   TransferDirection::GuestToHost, std::move(handler));
    return handler;
}

// Routes the worker's messages to the sink on the host until its transfer ends.
Handler install(Host& host, const std::shared_ptr<SinkShared>& shared, uint64_t workerId) {
    std::weak_ptr<SinkShared> weak = shared;
    Handler handler = route(shared, workerId, [&host, weak, workerId] {
        host.clear_worker_handler(workerId);
        if (auto s = weak.lock()) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->installed.erase(workerId);
        }
    });
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->installed.insert(workerId);
    }
    host.set_worker_handler(workerId, handler);
    return handler;
}

// A file list's answer: a workerId of the sink's own and the file-list action.
uint32_t assign_worker(SinkShared& shared, Exchange& ex) {
    le::put64(ex.reply.data(), dnd::kOffWorkerId, shared.nextWorkerId++);
    le::put32(ex.reply.data(), dnd::kOffReplyAction, shared.options.fileListAction);
    return dnd::kStatusSuccess;
}

}  // namespace

TreeSink::TreeSink(Host& host, SinkOptions options)
    : m_host(host), m_shared(std::make_shared<SinkShared>()) {
    m_shared->options = std::move(options);
    std::weak_ptr<SinkShared> weak = m_shared;
    Host* hostPtr = &host;
    // A 262 reaches here only for a worker without a handler of its own.
    m_host.set_handler(dnd::kCmdSendTotals, [hostPtr, weak](Exchange& ex) -> uint32_t {
        auto shared = weak.lock();
        return shared ? install(*hostPtr, shared, ex.workerId)(ex) : dnd::kStatusSuccess;
    });
    if (m_shared->options.assignWorkerIds) {
        auto assign = [weak](Exchange& ex) {
            auto shared = weak.lock();
            return shared ? assign_worker(*shared, ex) : dnd::kStatusSuccess;
        };
        m_host.set_handler(dnd::kCmdFileList, assign);
        m_host.set_handler(dnd::kCmdFileListVariant, assign);
    }
}

TreeSink::~TreeSink() {
    m_host.clear_handler(dnd::kCmdSendTotals);
    if (m_shared->options.assignWorkerIds) {
        m_host.clear_handler(dnd::kCmdFileList);
        m_host.clear_handler(dnd::kCmdFileListVariant);
    }
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    for (uint64_t worker : m_shared->installed) m_host.clear_worker_handler(worker);
}

void TreeSink::accept(uint64_t workerId) {
    install(m_host, m_shared, workerId);
}

Handler TreeSink::endpoint(uint64_t workerId) {
    return route(m_shared, workerId, nullptr);
}

uint32_t TreeSink::answer_file_list(Exchange& ex) {
    return assign_worker(*m_shared, ex);
}

std::optional<SinkResult> TreeSink::result(uint64_t workerId) const {
    std::shared_ptr<Session> session;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (auto it = m_shared->running.find(workerId); it != m_shared->running.end())
            session = it->second;
        else
            for (auto r = m_shared->finished.rbegin(); r != m_shared->finished.rend(); ++r)
                if (r->workerId == workerId) return *r;
    }
    if (session) return session->result();
    return std::nullopt;
}

std::vector<SinkResult> TreeSink::finished() const {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->finished;
}

}  // namespace hostsim
