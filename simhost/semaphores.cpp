// SPDX-License-Identifier: Apache-2.0
// The host's System V semaphore sets, for the rescan lock of a replayed host. One process runs
// on the model, so an operation that would wait fails with EAGAIN instead.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>

#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

int SimHost::semget(key_t key, int count, int flags)
{
    const auto guard = m_state->guard();
    auto known = m_state->semaphoreIds.find(key);
    if (known != m_state->semaphoreIds.end()) {
        return known->second;
    }
    if (!(flags & IPC_CREAT) || count <= 0) {
        errno = ENOENT;
        return -1;
    }
    const int id = m_state->nextSemaphore++;
    m_state->semaphoreIds[key] = id;
    m_state->semaphores[id].assign(static_cast<size_t>(count), 0);
    return id;
}

int SimHost::semop(int id, struct sembuf* operations, size_t count)
{
    auto guard = m_state->guard();
    for (;;) {
        auto set = m_state->semaphores.find(id);
        if (set == m_state->semaphores.end()) {
            errno = EINVAL;
            return -1;
        }
        // All or nothing, in order, as the kernel applies them.
        std::vector<int> values = set->second;
        bool wouldWait = false;
        for (size_t i = 0; i < count && !wouldWait; ++i) {
            const struct sembuf& operation = operations[i];
            if (operation.sem_num >= values.size()) {
                errno = EFBIG;
                return -1;
            }
            int& value = values[operation.sem_num];
            if ((operation.sem_op == 0 && value != 0) || value + operation.sem_op < 0) {
                wouldWait = true;
            } else {
                value += operation.sem_op;
            }
        }
        if (!wouldWait) {
            const bool held = std::find_if(values.begin(), values.end(),
                                           [](int value) { return value != 0; }) != values.end();
            set->second = values;
            if (held) {
                m_state->semaphoreHolders[id] = std::this_thread::get_id();
            } else {
                m_state->semaphoreHolders.erase(id);
                m_state->semaphoreReleased.notify_all();
            }
            return 0;
        }
        auto holder = m_state->semaphoreHolders.find(id);
        if (holder == m_state->semaphoreHolders.end() ||
            holder->second == std::this_thread::get_id()) {
            errno = EAGAIN;
            return -1;
        }
        m_state->semaphoreReleased.wait(guard);
    }
}

int SimHost::semctl(int id, int /*number*/, int command)
{
    const auto guard = m_state->guard();
    auto set = m_state->semaphores.find(id);
    if (set == m_state->semaphores.end() || command != IPC_RMID) {
        errno = EINVAL;
        return -1;
    }
    m_state->semaphores.erase(set);
    m_state->semaphoreHolders.erase(id);
    m_state->semaphoreReleased.notify_all();
    for (auto key = m_state->semaphoreIds.begin(); key != m_state->semaphoreIds.end(); ++key) {
        if (key->second == id) {
            m_state->semaphoreIds.erase(key);
            break;
        }
    }
    return 0;
}

std::vector<int> SimHost::semaphoreValues(int key) const
{
    auto id = m_state->semaphoreIds.find(key);
    if (id == m_state->semaphoreIds.end()) {
        return {};
    }
    return m_state->semaphores.at(id->second);
}

}  // namespace simhost
