// The transfer worker pool and the frame around each job thread.
//
// Who releases a job thread: exactly one of Stop (join) or the thread itself (detach).
// Under m_lockMutex Stop marks every node it copies as claimed; a job removing its node
// under the same lock detaches only when the node was unclaimed. A job that finds no node
// does not detach either, since it cannot tell whether somebody holds its handle. So a
// handle is never both joined and detached, and a job that ends on its own leaks nothing.
#include "app/dnd_pool.h"

#include <new>

#include "common/signal_block.h"
#include "log/log.h"

namespace qvx {

DnDPool::DnDPool(CommonMacCommunicator* communicator, SendFunction send)
    : m_communicator(communicator), m_send(std::move(send)) {}

bool DnDPool::Init() {
    if (pthread_mutex_init(&m_lockMutex, nullptr) != 0) {
        log_message("", "qvxdragdrop", 0, "Can't init m_lockMutex");
        return false;
    }
    m_lockReady = true;
    return true;
}

bool DnDPool::StartReceive(uint64_t workerId, const std::string& destination) {
    auto* job = new (std::nothrow) TransferJob;
    if (job == nullptr) return false;
    job->pool = this;
    job->direction = kDirectionReceive;
    job->workerId = workerId;
    job->destination = destination;
    job->action = 0;
    return Launch(job);
}

bool DnDPool::StartSend(uint64_t workerId, uint32_t action, const std::vector<std::string>& paths,
                        const std::vector<FileIdentity>& identities) {
    auto* job = new (std::nothrow) TransferJob;
    if (job == nullptr) return false;
    job->pool = this;
    job->direction = kDirectionSend;
    job->workerId = workerId;
    job->action = action;
    job->paths = paths;
    job->identities = identities;
    return Launch(job);
}

bool DnDPool::Launch(TransferJob* job) {
    // Held across creation and append: the job's first step takes this lock, so it cannot
    // look for its node (or read job->thread) before both are in place.
    pthread_mutex_lock(&m_lockMutex);
    pthread_t handle;
    int rc;
    {
        // A job never takes a stop signal: one sent to the process would otherwise end the
        // job's wait for the host and fail its transfer. The main thread takes it, and the
        // stop sequence waits for the job to end.
        const ScopedSignalBlock block({SIGINT, SIGTERM});
        rc = m_createThread(&handle, nullptr, JobThread, job);
    }
    if (rc == 0) {
        job->thread = handle;
        m_threads.push_back(Node{handle, false});
    }
    pthread_mutex_unlock(&m_lockMutex);
    if (rc != 0) {
        // No thread owns the record and the handle is unusable: discard the start.
        log_message("", "qvxdragdrop", 0, "Can't create DnD job thread (%d)", rc);
        delete job;
        return false;
    }
    return true;
}

void* DnDPool::JobThread(void* arg) {
    auto* job = static_cast<TransferJob*>(arg);
    DnDPool* pool = job->pool;
    pthread_mutex_lock(&pool->m_lockMutex);
    pthread_mutex_unlock(&pool->m_lockMutex);
    {
        const DnDContext context{job->workerId, pool->m_communicator, pool->m_send};
        RunTransferJob(*job, context);
    }
    // The last touch of the pool: once its node is gone Stop may return and the pool go.
    pool->RemoveSelf(job->thread);
    delete job;
    return nullptr;
}

void DnDPool::RemoveSelf(pthread_t self) {
    pthread_mutex_lock(&m_lockMutex);
    for (auto it = m_threads.begin(); it != m_threads.end(); ++it) {
        if (pthread_equal(it->handle, self)) {
            if (!it->claimedByStop) pthread_detach(self);
            m_threads.erase(it);
            break;
        }
    }
    pthread_mutex_unlock(&m_lockMutex);
}

void DnDPool::Stop() {
    std::vector<pthread_t> copy;
    pthread_mutex_lock(&m_lockMutex);
    for (auto& node : m_threads) {
        node.claimedByStop = true;
        copy.push_back(node.handle);
    }
    pthread_mutex_unlock(&m_lockMutex);
    // Without the lock, so that jobs can still remove themselves while we wait.
    for (pthread_t handle : copy) pthread_join(handle, nullptr);
}

void DnDPool::Destroy() {
    if (m_lockReady) pthread_mutex_destroy(&m_lockMutex);
    m_lockReady = false;
    m_threads.clear();
}

size_t DnDPool::ListedCount() {
    pthread_mutex_lock(&m_lockMutex);
    const size_t n = m_threads.size();
    pthread_mutex_unlock(&m_lockMutex);
    return n;
}

}  // namespace qvx
