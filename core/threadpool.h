// The process's one thread pool: a bounded FIFO of tasks and a few workers.
// The uloop thread posts; the workers run. Posting is one short mutex hold
// with no allocation, so the event loop is never stalled by a slow task.
#pragma once

#include <cstdint>
#include <pthread.h>

// One unit of work, allocated by the poster (malloc or calloc) and owned by
// the pool from the post on. `arg` belongs to `fn`, which frees it.
struct threadpool_task {
    void (*fn)(void *arg);
    void *arg;
    threadpool_task *next;
};

// Singly linked FIFO behind a zeroed sentinel; the first real task is
// head->next, and tail is the sentinel when the queue is empty.
struct task_queue {
    threadpool_task *head;
    threadpool_task *tail;
    int32_t len;
};

struct threadpool {
    pthread_t *worker_arr;
    int32_t worker_num;
    struct task_queue task_queue;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
};

// At most this many tasks wait; a post beyond it is dropped.
inline constexpr int32_t TASK_QUEUE_MAX = 64;
inline constexpr int32_t THREADPOOL_MAX_WORKERS = 3;

// The pool everyone posts to, set up by main.
extern threadpool *thread_pool;

int threadpool_init(threadpool *pool, int n) noexcept;
int create_workers(threadpool *pool) noexcept;
// Posts: 0 when the queue took the task, -1 when it was full. A refused task
// record is freed and its arg is not: the poster still owns the payload and
// frees it, so a storm of events cannot pin memory the queue turned away.
int threadpool_add_task(threadpool_task *task, threadpool *pool) noexcept;
// How long teardown waits for the workers to end, so that a stop is done
// within a second whatever a task is doing.
inline constexpr int WORKER_JOIN_MS = 600;

// Cancels and joins the workers and frees the pool: 0. When a worker is still
// inside a task after WORKER_JOIN_MS, 1, and the pool stays allocated for it:
// the caller must then end the process without running static destructors.
int threadpool_deinit(threadpool *pool) noexcept;

// List operations, called with the pool's mutex held.
int task_enqueue(task_queue *queue, threadpool_task *task) noexcept;
threadpool_task *task_dequeue(task_queue *queue) noexcept;

// The worker body; never returns. Not noexcept: pthread_cancel unwinds
// through it.
void *work_loop(void *pool);
