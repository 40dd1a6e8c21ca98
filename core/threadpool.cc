#include "core/threadpool.h"

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "core/log.h"

threadpool *thread_pool = nullptr;

// Cancellation is kept off everywhere in a worker except in the wait for a
// task and at the top of each turn. Task functions and the log are noexcept
// C++, and a cancellation unwinding through a noexcept frame would abort the
// process instead of ending the thread; with this, a worker that is inside a
// task ends right after it, before taking another one.

int threadpool_init(threadpool *pool, int n) noexcept
{
    if (!pool)
        return -1;
    if (n > THREADPOOL_MAX_WORKERS - 1)
        n = THREADPOOL_MAX_WORKERS;
    pool->worker_num = n;
    pool->worker_arr = static_cast<pthread_t *>(calloc(n > 0 ? n : 1, sizeof(pthread_t)));
    if (!pool->worker_arr) {
        LR_LOG(2, "[lr error] threadpool_init, worker_arr\n");
        return -1;
    }
    auto *sentinel = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    if (!sentinel) {
        LR_LOG(2, "[lr error] threadpool_init, task_queue\n");
        return -1;
    }
    pool->task_queue.head = sentinel;
    pool->task_queue.tail = sentinel;
    pool->task_queue.len = 0;
    pthread_mutex_init(&pool->mutex, nullptr);
    pthread_cond_init(&pool->cond, nullptr);
    LR_LOG(7, "[lr] threadpool_init, has %d workers\n", n);
    return 0;
}

int create_workers(threadpool *pool) noexcept
{
    for (int i = 0; i < pool->worker_num; i++) {
        if (pthread_create(&pool->worker_arr[i], nullptr, work_loop, pool) != 0) {
            lr_perror("pthread_create");
            LR_LOG(2, "[lr error] pthread_create\n");
            return -1;
        }
        LR_LOG(7, "create the thread tid = %lu\n", static_cast<unsigned long>(pool->worker_arr[i]));
    }
    return 0;
}

int task_enqueue(task_queue *queue, threadpool_task *task) noexcept
{
    if (!queue || !task)
        return -1;
    if (queue->len > TASK_QUEUE_MAX - 1)
        return -1;
    task->next = nullptr;
    queue->tail->next = task;
    queue->tail = task;
    queue->len++;
    return 0;
}

threadpool_task *task_dequeue(task_queue *queue) noexcept
{
    if (!queue || queue->len == 0)
        return nullptr;
    threadpool_task *task = queue->head->next;
    if (queue->len == 1)
        queue->tail = queue->head;
    queue->head->next = task->next;
    task->next = nullptr;
    queue->len--;
    return task;
}

int threadpool_add_task(threadpool_task *task, threadpool *pool) noexcept
{
    pthread_mutex_lock(&pool->mutex);
    int taken = task_enqueue(&pool->task_queue, task);
    if (taken == 0)
        pthread_cond_broadcast(&pool->cond);
    else
        free(task);
    pthread_mutex_unlock(&pool->mutex);
    return taken;
}

namespace
{

void unlock_mutex(void *mutex)
{
    pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
}

// Waits for a task with the mutex held; the only place where a cancel can
// end a worker that has nothing to do. The cleanup releases the mutex the
// wait took back before unwinding.
void wait_for_task_locked(threadpool *pool)
{
    int old = 0;
    pthread_cleanup_push(unlock_mutex, &pool->mutex);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    while (pool->task_queue.len == 0)
        pthread_cond_wait(&pool->cond, &pool->mutex);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    pthread_cleanup_pop(0);
}

void cancel_point()
{
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
}

} // namespace

void *work_loop(void *arg)
{
    auto *pool = static_cast<threadpool *>(arg);
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    for (;;) {
        cancel_point();
        LR_LOG(7, "[lr] enter workloop\n");
        pthread_mutex_lock(&pool->mutex);
        wait_for_task_locked(pool);
        threadpool_task *task = task_dequeue(&pool->task_queue);
        if (!task) {
            pthread_mutex_unlock(&pool->mutex);
            continue;
        }
        void (*fn)(void *) = task->fn;
        void *task_arg = task->arg;
        pthread_mutex_unlock(&pool->mutex);
        if (fn)
            fn(task_arg);
        free(task);
    }
}

int threadpool_deinit(threadpool *pool) noexcept
{
    for (int i = 0; i < pool->worker_num; i++) {
        if (pthread_cancel(pool->worker_arr[i]) != 0) {
            LR_LOG(2, "[lr error] pthread_cancel\n");
            exit(0);
        }
    }
    // Queued tasks and their payloads are abandoned: the process ends right
    // after. A cancelled waiter takes the mutex back on its way out, so the
    // pool may be freed only once every worker has ended; a worker inside a
    // task ends right after it, and tasks give up soon after a stop. The wait
    // is bounded all the same, and a worker that overstays it keeps the pool.
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += static_cast<long>(WORKER_JOIN_MS) * 1000000L;
    deadline.tv_sec += deadline.tv_nsec / 1000000000L;
    deadline.tv_nsec %= 1000000000L;
    bool all_ended = true;
    for (int i = 0; i < pool->worker_num; i++)
        all_ended = pthread_timedjoin_np(pool->worker_arr[i], nullptr, &deadline) == 0 && all_ended;
    if (!all_ended)
        return 1;
    free(pool->worker_arr);
    free(pool->task_queue.head);
    free(pool);
    return 0;
}
