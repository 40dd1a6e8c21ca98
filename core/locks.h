// Process-wide locks that several subsystems share. They nest only in this
// order: client_table_lock, history_list_lock, wlan_lock, uci_lock, then the
// small mutexes of the probe lists and the name cache.
#pragma once

#include <pthread.h>

// Every UCI context of the daemon, and the vendor dictionary.
extern pthread_mutex_t uci_lock;

// Scoped hold of a pthread mutex.
class mutex_guard
{
  public:
    explicit mutex_guard(pthread_mutex_t &m) noexcept : m_(m)
    {
        pthread_mutex_lock(&m_);
    }
    ~mutex_guard()
    {
        pthread_mutex_unlock(&m_);
    }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

  private:
    pthread_mutex_t &m_;
};
