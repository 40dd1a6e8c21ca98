#include "tests/events/event_test_util.h"

#include <cstdlib>
#include <cstring>

namespace evtest
{

threadpool *idle_pool()
{
    auto *pool = static_cast<threadpool *>(calloc(1, sizeof(threadpool)));
    threadpool_init(pool, 0);
    thread_pool = pool;
    return pool;
}

int queued(threadpool *pool)
{
    pthread_mutex_lock(&pool->mutex);
    int n = pool->task_queue.len;
    pthread_mutex_unlock(&pool->mutex);
    return n;
}

std::vector<std::vector<uint8_t>> drain_pool(threadpool *pool)
{
    std::vector<std::vector<uint8_t>> out;
    pthread_mutex_lock(&pool->mutex);
    while (threadpool_task *t = task_dequeue(&pool->task_queue)) {
        auto *msg = static_cast<nl_event_msg *>(t->arg);
        out.emplace_back(msg->buf, msg->buf + msg->len);
        nl_event_msg_free(msg);
        free(t);
    }
    pthread_mutex_unlock(&pool->mutex);
    return out;
}

nl_event_msg *copy_msg(const std::vector<uint8_t> &bytes)
{
    auto *msg = static_cast<nl_event_msg *>(calloc(1, sizeof(nl_event_msg)));
    msg->buf = static_cast<uint8_t *>(malloc(bytes.size() ? bytes.size() : 1));
    if (!bytes.empty())
        std::memcpy(msg->buf, bytes.data(), bytes.size());
    msg->len = static_cast<int32_t>(bytes.size());
    return msg;
}

} // namespace evtest
