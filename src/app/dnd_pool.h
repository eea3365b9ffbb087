// The transfer worker pool: one joinable thread per transfer, listed until it ends, and
// joined at the tool's stop.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "channel/communicator.h"
#include "transfer/transfer_job.h"

namespace qvx {

class DnDPool {
  public:
    using CreateThread = int (*)(pthread_t* thread, const pthread_attr_t* attr,
                                 void* (*start)(void*), void* arg);

    // Stores both; the lock is made by Init.
    DnDPool(CommonMacCommunicator* communicator, SendFunction send);
    DnDPool(const DnDPool&) = delete;
    DnDPool& operator=(const DnDPool&) = delete;

    // Initialises m_lockMutex; logs "Can't init m_lockMutex" and gives false on failure.
    bool Init();
    // Start a receive job into `destination`, or a send job for `paths` with the host's
    // action and what the paths named when the drag was read (a delete removes only those
    // items). False when the thread could not be created (logged; nothing is listed).
    bool StartReceive(uint64_t workerId, const std::string& destination);
    bool StartSend(uint64_t workerId, uint32_t action, const std::vector<std::string>& paths,
                   const std::vector<FileIdentity>& identities);
    // Joins every job listed when it is called; the list itself is left to the jobs.
    void Stop();
    // Destroys the lock and forgets the list without joining.
    void Destroy();

    // Jobs listed now (tests and diagnostics).
    size_t ListedCount();
    // Tests only: the call that creates job threads (pthread_create by default).
    void SetCreateThread(CreateThread create) { m_createThread = create; }

  private:
    struct Node {
        pthread_t handle;
        // Set by Stop when it copies the node: Stop will join this thread, so the thread
        // must not detach itself.
        bool claimedByStop;
    };

    static void* JobThread(void* arg);
    bool Launch(TransferJob* job);
    void RemoveSelf(pthread_t self);

    CommonMacCommunicator* m_communicator;
    SendFunction m_send;
    std::list<Node> m_threads;
    pthread_mutex_t m_lockMutex;
    bool m_lockReady = false;
    CreateThread m_createThread = pthread_create;
};

}  // namespace qvx
