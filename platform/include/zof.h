// OS wrapper of the device platform: a mutex, a scoped holder of it, the one
// process-wide lock and a sleep. Every operation is defined out of line by the
// platform library; nothing here is inline.
#ifndef ZOF_H
#define ZOF_H

// A mutex. Constructed with 1 it is free. Safe to acquire and release from any
// thread; not recursive.
class Zof_Mutex_Semaphore {
public:
    explicit Zof_Mutex_Semaphore(int initial);
    ~Zof_Mutex_Semaphore();
    Zof_Mutex_Semaphore(const Zof_Mutex_Semaphore&) = delete;
    Zof_Mutex_Semaphore& operator=(const Zof_Mutex_Semaphore&) = delete;

    // Blocks until the mutex is held by the caller.
    void acquire();
    // REQUIRES: the caller holds the mutex.
    void release();

private:
    void* impl_;
};

// Holds a Zof_Mutex_Semaphore from construction to destruction.
class Zof_Guard {
public:
    explicit Zof_Guard(Zof_Mutex_Semaphore& mutex);
    ~Zof_Guard();
    Zof_Guard(const Zof_Guard&) = delete;
    Zof_Guard& operator=(const Zof_Guard&) = delete;

private:
    Zof_Mutex_Semaphore* mutex_;
};

// Holds the one process-wide lock from construction to destruction.
class Zof_Thread_Guard {
public:
    Zof_Thread_Guard();
    ~Zof_Thread_Guard();
    Zof_Thread_Guard(const Zof_Thread_Guard&) = delete;
    Zof_Thread_Guard& operator=(const Zof_Thread_Guard&) = delete;
};

// Suspends the calling thread. On the host the unit is milliseconds.
void tivZofSleep(int time);

#endif  // ZOF_H
