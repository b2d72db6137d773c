// SPDX-License-Identifier: Apache-2.0
// The kit's trace log: reference-counted log with interchangeable sinks, the smart pointer that
// carries it, the per-plug-in singleton, the CFiTraceable base and the function scope tracer.
#ifndef KZFI_PDK_FI_TRACE_H
#define KZFI_PDK_FI_TRACE_H

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "fi_export.h"

namespace kzfi_pdk_4_4 {

// The plug-in tag of this library's trace-log singleton.
KZFI_PDK_EXPORT extern const char FI_PLUGIN_NAME[];

class KZFI_PDK_EXPORT CFiRefCount {
public:
    CFiRefCount() = default;
    CFiRefCount(const CFiRefCount&) = delete;
    CFiRefCount& operator=(const CFiRefCount&) = delete;
    virtual ~CFiRefCount();

    void addRef();
    // Drops one reference; deletes the object when it was the last. Returns the count left.
    long releaseRef();
    long refCount() const;

private:
    long m_count = 0;
    mutable std::mutex m_mutex;
};

// Where trace lines go. A sink receives only lines whose level is enabled.
class KZFI_PDK_EXPORT CFiTraceSink {
public:
    virtual ~CFiTraceSink();
    virtual void write(int level, const std::string& message) = 0;
};

// Lines "2026-11-22 10:15:02.123 pid 4711 tid 4711 L3 message" on a stream (a file or stderr).
class KZFI_PDK_EXPORT CFiStreamTraceSink : public CFiTraceSink {
public:
    // Takes ownership of `stream` when `owned` (closed with fclose in the destructor).
    CFiStreamTraceSink(FILE* stream, bool owned);
    ~CFiStreamTraceSink() override;
    void write(int level, const std::string& message) override;

private:
    FILE* m_stream;
    bool m_owned;
    std::mutex m_mutex;
};

// Keeps every line in memory, for tests and for the command's "warnings it caused".
class KZFI_PDK_EXPORT CFiMemoryTraceSink : public CFiTraceSink {
public:
    void write(int level, const std::string& message) override;
    std::vector<std::pair<int, std::string>> lines() const;
    // The messages at exactly `level`, in order.
    std::vector<std::string> messages(int level) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<int, std::string>> m_lines;
};

class KZFI_PDK_EXPORT CFiTraceLog : public virtual CFiRefCount {
public:
    CFiTraceLog();
    ~CFiTraceLog() override;

    // printf-style; written only when `level` is at or below the log's level and a sink is set.
    // Formatting happens only then. Never throws into its caller.
    void trace(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    bool isEnabled(int level) const;
    void setLevel(int level);
    // Replaces the sink (nullptr: no output). The log owns it.
    void setSink(std::unique_ptr<CFiTraceSink> sink);

private:
    std::atomic<int> m_level;
    std::shared_ptr<CFiTraceSink> m_sink;
    mutable std::mutex m_sinkMutex;
};

// Allocation policy of the singleton's objects.
template <class T>
class CFiContextSingletonAllocator {
public:
    static T* create() { return new T(); }
};

template <class T, class A = CFiContextSingletonAllocator<T>>
class CFiSmartPtr {
public:
    CFiSmartPtr() = default;
    explicit CFiSmartPtr(T* p) { acquire(p); }
    CFiSmartPtr(const CFiSmartPtr& other) { acquire(other.m_ptr); }
    CFiSmartPtr& operator=(const CFiSmartPtr& other)
    {
        if (other.m_ptr != m_ptr) {
            T* p = other.m_ptr;
            release();
            acquire(p);
        }
        return *this;
    }
    ~CFiSmartPtr() { release(); }

    // Takes a reference to `p` and then drops any held one, so that taking the pointer already
    // held never frees it; nullptr leaves the pointer empty.
    void acquire(T* p)
    {
        if (p != nullptr) {
            p->addRef();
        }
        release();
        m_ptr = p;
    }
    void release()
    {
        T* p = m_ptr;
        m_ptr = nullptr;
        if (p != nullptr) {
            p->releaseRef();
        }
    }

    T* get() const { return m_ptr; }
    T* operator->() const { return m_ptr; }
    T& operator*() const { return *m_ptr; }
    bool isNull() const { return m_ptr == nullptr; }
    explicit operator bool() const { return m_ptr != nullptr; }
    bool operator==(const CFiSmartPtr& other) const { return m_ptr == other.m_ptr; }
    bool operator!=(const CFiSmartPtr& other) const { return m_ptr != other.m_ptr; }

private:
    T* m_ptr = nullptr;
};

using CFiTraceLogPtr = CFiSmartPtr<CFiTraceLog, CFiContextSingletonAllocator<CFiTraceLog>>;

// One instance per plug-in tag, created on first use. The pointer and the mutex are plain static
// storage: nothing is allocated for them and they stay usable while static objects are destroyed
// at exit. The kit drops the singleton's reference to its trace log when it is unloaded.
template <class T, const char* TAG>
class KZFI_PDK_EXPORT CFiContextSingleton {
public:
    static CFiSmartPtr<T, CFiContextSingletonAllocator<T>> instance(bool destroy)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        if (destroy) {
            T* held = s_held;
            s_held = nullptr;
            if (held != nullptr) {
                held->releaseRef();
            }
            return CFiSmartPtr<T, CFiContextSingletonAllocator<T>>();
        }
        if (s_held == nullptr) {
            T* created = CFiContextSingletonAllocator<T>::create();
            created->addRef();  // the singleton's own reference
            s_held = created;
        }
        return CFiSmartPtr<T, CFiContextSingletonAllocator<T>>(s_held);
    }

private:
    static_assert(std::is_trivially_destructible<std::mutex>::value,
                  "the singleton's mutex must outlive every static destructor");
    static inline std::mutex s_mutex;
    static inline T* s_held = nullptr;
};

// The plug-in's shared trace log.
KZFI_PDK_EXPORT CFiTraceLogPtr fiPluginTraceLog();

class KZFI_PDK_EXPORT CFiTraceable {
public:
    CFiTraceable() = default;
    CFiTraceable(const CFiTraceable&) = default;
    CFiTraceable& operator=(const CFiTraceable&) = default;
    virtual ~CFiTraceable();

    virtual void registerTraceLog(const CFiTraceLogPtr& log);
    const CFiTraceLogPtr& getTraceLog() const { return m_traceLog; }

protected:
    CFiTraceLogPtr m_traceLog;
};

// Writes "Entering Function %s [%d, %s]" when built and "Exiting Function %s [%d, %s]" (or,
// with line 0, "Exiting Function %s") when destroyed, both at level 6.
class KZFI_PDK_EXPORT CFiTraceLogFunction {
public:
    CFiTraceLogFunction(const CFiTraceLogPtr& log, const char* function, int line,
                        const char* file);
    ~CFiTraceLogFunction();
    CFiTraceLogFunction(const CFiTraceLogFunction&) = delete;
    CFiTraceLogFunction& operator=(const CFiTraceLogFunction&) = delete;

    // The text stored for a file name without any '/'.
    static const char* const kUnknownFile;

private:
    CFiTraceLogPtr m_log;
    const char* m_function;
    int m_line;
    const char* m_file;
};

}  // namespace kzfi_pdk_4_4

// Opens the scope tracer of a member function of a CFiTraceable.
#define FI_TRACE_FUNCTION(name) \
    ::kzfi_pdk_4_4::CFiTraceLogFunction fiTraceFunction_(m_traceLog, name, __LINE__, __FILE__)

#endif
