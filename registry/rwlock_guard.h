// Scoped holds of a pthread reader-writer lock.
#pragma once

#include <pthread.h>

class rwlock_read_guard
{
  public:
    explicit rwlock_read_guard(pthread_rwlock_t &l) noexcept : l_(l)
    {
        pthread_rwlock_rdlock(&l_);
    }
    ~rwlock_read_guard()
    {
        pthread_rwlock_unlock(&l_);
    }
    rwlock_read_guard(const rwlock_read_guard &) = delete;
    rwlock_read_guard &operator=(const rwlock_read_guard &) = delete;

  private:
    pthread_rwlock_t &l_;
};

class rwlock_write_guard
{
  public:
    explicit rwlock_write_guard(pthread_rwlock_t &l) noexcept : l_(l)
    {
        pthread_rwlock_wrlock(&l_);
    }
    ~rwlock_write_guard()
    {
        pthread_rwlock_unlock(&l_);
    }
    rwlock_write_guard(const rwlock_write_guard &) = delete;
    rwlock_write_guard &operator=(const rwlock_write_guard &) = delete;

  private:
    pthread_rwlock_t &l_;
};

// A read hold only if the lock was free for reading at once.
class rwlock_try_read_guard
{
  public:
    explicit rwlock_try_read_guard(pthread_rwlock_t &l) noexcept
        : l_(l), held_(pthread_rwlock_tryrdlock(&l) == 0)
    {
    }
    ~rwlock_try_read_guard()
    {
        if (held_)
            pthread_rwlock_unlock(&l_);
    }
    bool held() const noexcept
    {
        return held_;
    }
    rwlock_try_read_guard(const rwlock_try_read_guard &) = delete;
    rwlock_try_read_guard &operator=(const rwlock_try_read_guard &) = delete;

  private:
    pthread_rwlock_t &l_;
    bool held_;
};
