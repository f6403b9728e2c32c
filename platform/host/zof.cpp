// Host OS wrapper: a std::mutex behind Zof_Mutex_Semaphore, one process-wide
// lock for Zof_Thread_Guard, and a millisecond sleep that tests can count.
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "host/tev_host_testing.h"
#include "zof.h"

namespace {

std::mutex& process_lock() {
    static std::mutex lock;
    return lock;
}

struct sleep_record {
    std::mutex mtx;
    bool counting = false;
    std::vector<int> sleeps;
};

sleep_record& sleeps() {
    static sleep_record* record = new sleep_record;  // never destroyed: used until exit
    return *record;
}

}  // namespace

Zof_Mutex_Semaphore::Zof_Mutex_Semaphore(int /*initial*/) : impl_(new std::mutex) {}

Zof_Mutex_Semaphore::~Zof_Mutex_Semaphore() {
    delete static_cast<std::mutex*>(impl_);
}

void Zof_Mutex_Semaphore::acquire() {
    static_cast<std::mutex*>(impl_)->lock();
}

void Zof_Mutex_Semaphore::release() {
    static_cast<std::mutex*>(impl_)->unlock();
}

Zof_Guard::Zof_Guard(Zof_Mutex_Semaphore& mutex) : mutex_(&mutex) {
    mutex_->acquire();
}

Zof_Guard::~Zof_Guard() {
    mutex_->release();
}

Zof_Thread_Guard::Zof_Thread_Guard() {
    process_lock().lock();
}

Zof_Thread_Guard::~Zof_Thread_Guard() {
    process_lock().unlock();
}

void tivZofSleep(int time) {
    {
        sleep_record& record = sleeps();
        std::lock_guard<std::mutex> lock(record.mtx);
        if (record.counting) {
            record.sleeps.push_back(time);
            return;
        }
    }
    if (time > 0) std::this_thread::sleep_for(std::chrono::milliseconds(time));
}

namespace tevhost {

void sleep_counting_begin() {
    sleep_record& record = sleeps();
    std::lock_guard<std::mutex> lock(record.mtx);
    record.counting = true;
    record.sleeps.clear();
}

void sleep_counting_end() {
    sleep_record& record = sleeps();
    std::lock_guard<std::mutex> lock(record.mtx);
    record.counting = false;
}

std::vector<int> counted_sleeps() {
    sleep_record& record = sleeps();
    std::lock_guard<std::mutex> lock(record.mtx);
    return record.sleeps;
}

}  // namespace tevhost
