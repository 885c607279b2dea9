// Happens-before edges of an uninstrumented QtCore, told to ThreadSanitizer.
//
// Debian's QtCore is not built with ThreadSanitizer, so the synchronisation inside it is
// invisible, and every queued call between threads reads as a race. This library is linked
// first into every program of a ThreadSanitizer build (unless the QtCore in use is instrumented
// itself) and tells ThreadSanitizer about QtCore's edges with its public annotations:
//  - posting an event releases on the event; delivering it (QtCore's event-notify callback)
//    acquires on it: queued signals, invokeMethod, deleteLater;
//  - the slot object (functor) a queued call shares with its poster and its connection is
//    reference counted inside QtCore: the event's drop of it releases, the poster's drop
//    acquires, and so does a connection's drop (an atomic decrement, patched in place);
//  - implicitly shared data (QByteArray, QList...): a drop of a reference, in our code, happens
//    before QtCore frees the data after its own, invisible, last drop;
//  - QSemaphore: release, then acquire (blocking queued calls wait on one);
//  - QPointer and QWeakPointer count their references to a QObject in a block that QtCore
//    drops, and may free, in ~QObject: the other threads' drops happen before it;
//  - a thread's end happens before a QThread::wait that returns true;
//  - QObject::moveToThread's own allocations, handed to the target thread under a mutex of
//    QtCore's, are not recorded (nor are the posted-event queue's);
//  - QtCore's own mutexes, where contended: their inline fast paths stay invisible.
// QtCore binds calls to its own functions directly, so besides interposing the exported entry
// points for callers outside QtCore, the hooks take over QtCore's direct calls to them.
// QMutex in our code needs nothing more: its inline lock and unlock annotate themselves.
// Only QtCore's own edges belong here: a report that none of them explains is a race.
#include <QtCore/qdeadlinetimer.h>
#include <QtCore/qnamespace.h>

#include <sanitizer/tsan_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <initializer_list>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

class QArrayData;
class QBasicMutex;
class QEvent;
class QObject;
class QSemaphore;
class QThread;
class QWaitCondition;

// ThreadSanitizer's runtime has these, its public header does not.
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();

#define TSANQT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "tsanqtedges: %s\n", what);
    std::abort();
}

// QtCore's own functions, found past this library's definitions of them.
struct {
    void (*postEvent)(QObject*, QEvent*, int);
    void (*metaCallEventDestructor)(void*);
    void (*objectDestructor)(QObject*);
    void (*deallocate)(QArrayData*, std::ptrdiff_t, std::ptrdiff_t);
    void (*semaphoreRelease)(QSemaphore*, int);
    void (*semaphoreAcquire)(QSemaphore*, int);
    bool (*semaphoreTryAcquire)(QSemaphore*, int);
    bool (*semaphoreTryAcquireTimed)(QSemaphore*, int, int);
    void (*wakeAll)(QWaitCondition*);
    bool (*threadWait)(QThread*, QDeadlineTimer);
    void (*moveToThread)(QObject*, QThread*);
    void (*lock)(QBasicMutex*);
    bool (*timedLock)(QBasicMutex*, int);
    void (*unlock)(QBasicMutex*);
} real;

const void* metaCallEventVtable;
// Where a QMetaCallEvent keeps its slot object, and where a QObject's private part keeps its
// weak reference count: read from QtCore's code that uses them (zero if it looks unexpected).
std::size_t slotObjectOffset;
std::size_t sharedRefcountOffset;
// What a finishing thread has done happens before QThread::wait returns in another. The thread
// wakes its waiters with QWaitCondition::wakeAll as its very last step, under the mutex that
// guards its "finished" flag; but a wait that finds the thread already finished reads that flag
// under QtCore's own (invisible) mutex and sees no wake at all, and the condition lives where
// only QtCore can name it. So every wakeAll releases here once it is done (still under that
// mutex), and a successful QThread::wait acquires here. Coarser than one edge per thread.
char threadsFinished;

// Plain loads: this library is not instrumented, and memcpy would be seen as an access.
void* pointerAt(const void* base, std::size_t offset) {
    return *reinterpret_cast<void* const*>(static_cast<const char*>(base) + offset);
}

void postEventHook(QObject* receiver, QEvent* event, int priority) {
    // The event shares a reference-counted slot object (a functor or lambda) with the poster.
    // The receiver's thread may drop its reference first; the poster's own drop, right after
    // posting, then destroys the functor the receiver ran.
    void* slot = slotObjectOffset && pointerAt(event, 0) == metaCallEventVtable
                     ? pointerAt(event, slotObjectOffset)
                     : nullptr;
    // The poster's writes (the event's arguments, the state they describe) happen before the
    // receiver's thread reads them.
    __tsan_release(event);
    // The receiving thread's queue of posted events grows and shrinks under a mutex of QtCore's
    // whose fast path no annotation can see, so its allocations are not recorded here.
    __tsan_ignore_thread_begin();
    real.postEvent(receiver, event, priority);
    __tsan_ignore_thread_end();
    if (slot)
        __tsan_acquire(slot);
}

bool deliverEventHook(void** data) {
    // data holds the receiver, the event and the result; false lets delivery go on.
    __tsan_acquire(data[1]);
    return false;
}

void metaCallEventDestructorHook(void* event) {
    if (void* slot = slotObjectOffset ? pointerAt(event, slotObjectOffset) : nullptr)
        __tsan_release(slot);
    real.metaCallEventDestructor(event);
}

void objectDestructorHook(QObject* object) {
    // QObject keeps its private part behind the pointer that follows the vtable's.
    void* d = pointerAt(object, sizeof(void*));
    if (void* refcount = sharedRefcountOffset ? pointerAt(d, sharedRefcountOffset) : nullptr)
        __tsan_acquire(refcount);
    real.objectDestructor(object);
}

void deallocateHook(QArrayData* data, std::ptrdiff_t objectSize, std::ptrdiff_t alignment) {
    // The reference count is the header's first member; our code's drops release there.
    if (data)
        __tsan_acquire(data);
    real.deallocate(data, objectSize, alignment);
}

void semaphoreReleaseHook(QSemaphore* semaphore, int n) {
    __tsan_release(semaphore);
    real.semaphoreRelease(semaphore, n);
}

void semaphoreAcquireHook(QSemaphore* semaphore, int n) {
    real.semaphoreAcquire(semaphore, n);
    __tsan_acquire(semaphore);
}

bool semaphoreTryAcquireHook(QSemaphore* semaphore, int n) {
    const bool acquired = real.semaphoreTryAcquire(semaphore, n);
    if (acquired)
        __tsan_acquire(semaphore);
    return acquired;
}

bool semaphoreTryAcquireTimedHook(QSemaphore* semaphore, int n, int timeout) {
    const bool acquired = real.semaphoreTryAcquireTimed(semaphore, n, timeout);
    if (acquired)
        __tsan_acquire(semaphore);
    return acquired;
}

void wakeAllHook(QWaitCondition* condition) {
    real.wakeAll(condition);
    __tsan_release(&threadsFinished);
}

bool threadWaitHook(QThread* thread, QDeadlineTimer deadline) {
    const bool finished = real.threadWait(thread, deadline);
    if (finished)
        __tsan_acquire(&threadsFinished);
    return finished;
}

// moveToThread queues the object for a target thread that has not reached its event loop yet,
// under a mutex of QtCore's whose fast path no annotation can see; the thread frees that queue.
// Nothing of ours runs inside but a ThreadChange event handler, and none of ours has one.
void moveToThreadHook(QObject* object, QThread* thread) {
    __tsan_ignore_thread_begin();
    real.moveToThread(object, thread);
    __tsan_ignore_thread_end();
}

void lockHook(QBasicMutex* mutex) {
    real.lock(mutex);
    __tsan_acquire(mutex);
}

bool timedLockHook(QBasicMutex* mutex, int timeout) {
    const bool locked = real.timedLock(mutex, timeout);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

void unlockHook(QBasicMutex* mutex) {
    __tsan_release(mutex);
    real.unlock(mutex);
}

// The displacement of "mov disp8(%rax),%reg" at `code`, or zero.
std::size_t displacementFromRax(const unsigned char* code) {
    const bool isLoad = code[0] == 0x48 && code[1] == 0x8b && (code[2] & 0xc7) == 0x40;
    return isLoad ? code[3] : 0;
}

// ~QMetaCallEvent: "mov disp8(%r12),%rax", a test and a branch, then "lock subl $1,(%rax)".
std::size_t findSlotObjectOffset(const void* destructor) {
    const auto* code = static_cast<const unsigned char*>(destructor);
    for (int i = 0; i < 0xa0; ++i) {
        if (!std::memcmp(code + i, "\x49\x8b\x44\x24", 4) &&
            !std::memcmp(code + i + 10, "\xf0\x83\x28\x01", 4))
            return code[i + 4];
    }
    return 0;
}

// ExternalRefCountData::getAndRef: "mov 0x8(%rdi),%rax" (the private part), then the load of
// its sharedRefcount.
std::size_t findSharedRefcountOffset(const void* getAndRef) {
    const auto* code = static_cast<const unsigned char*>(getAndRef);
    for (int i = 0; i < 0x20; ++i) {
        if (!std::memcmp(code + i, "\x48\x8b\x47\x08", 4))
            return displacementFromRax(code + i + 4);
    }
    return 0;
}

struct Segment {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

int findQtCoreText(dl_phdr_info* info, size_t, void* out) {
    if (!std::strstr(info->dlpi_name, "/libQt6Core.so"))
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X)) {
            auto* text = static_cast<Segment*>(out);
            text->begin = info->dlpi_addr + header.p_vaddr;
            text->end = text->begin + header.p_memsz;
            return 1;
        }
    }
    return 0;
}

// Pages within a rel32 jump of QtCore's code, for "jmp *0(%rip)" followed by a hook's address.
class NearJumps {
public:
    explicit NearJumps(const Segment& text) {
        m_size = 4 * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        for (std::uintptr_t step = 1; step < 16384 && !m_page; ++step) {
            const std::uintptr_t hint = (text.begin & ~std::uintptr_t(m_size - 1)) - step * 0x10000;
            void* page = mmap(reinterpret_cast<void*>(hint), m_size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
            if (page == reinterpret_cast<void*>(hint))
                m_page = static_cast<unsigned char*>(page);
            else if (page != MAP_FAILED)
                munmap(page, m_size);
        }
        if (!m_page)
            fail("no room for jumps near QtCore");
    }
    std::uintptr_t add(const void* hook) {
        unsigned char code[14] = {0xff, 0x25, 0, 0, 0, 0};
        std::memcpy(code + 6, &hook, sizeof hook);
        return addCode(code, sizeof code);
    }
    std::uintptr_t addCode(const unsigned char* code, std::size_t size) {
        if (m_used + size > m_size)
            fail("out of room for jumps near QtCore");
        unsigned char* start = m_page + m_used;
        std::memcpy(start, code, size);
        m_used = (m_used + size + 15) & ~std::size_t(15);
        return reinterpret_cast<std::uintptr_t>(start);
    }
    void seal() { mprotect(m_page, m_size, PROT_READ | PROT_EXEC); }

private:
    unsigned char* m_page = nullptr;
    std::size_t m_size = 0;
    std::size_t m_used = 0;
};

struct Hook {
    const char* name; // QtCore's exported (mangled) name
    void** real;
    const void* hook;
    bool required; // whether QtCore must call it directly somewhere
    int redirected = 0;
    std::uintptr_t from = 0;
    std::uintptr_t to = 0;
};

template <typename Function>
Hook hook(const char* name, Function& realFunction, Function hookFunction, bool required = false) {
    return {name, reinterpret_cast<void**>(&realFunction),
            reinterpret_cast<const void*>(hookFunction), required};
}

void writeCode(std::uintptr_t at, const void* code, std::size_t size) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = at & ~(page - 1);
    void* pages = reinterpret_cast<void*>(first);
    if (mprotect(pages, at + size - first, PROT_READ | PROT_WRITE | PROT_EXEC) != 0)
        fail("cannot write QtCore's code");
    std::memcpy(reinterpret_cast<void*>(at), code, size);
    mprotect(pages, at + size - first, PROT_READ | PROT_EXEC);
}

// Machine code, written out byte by byte.
class Code {
public:
    Code& bytes(std::initializer_list<unsigned char> list) {
        for (unsigned char byte : list)
            m_bytes[m_size++] = byte;
        return *this;
    }
    template <typename Value> Code& value(Value v) {
        std::memcpy(m_bytes + m_size, &v, sizeof v);
        m_size += sizeof v;
        return *this;
    }
    // movdqu between %xmm<n> and <offset>(%rsp); store or load.
    Code& xmm(int n, std::int32_t offset, bool store) {
        bytes({0xf3});
        if (n >= 8)
            bytes({0x44});
        bytes({0x0f, static_cast<unsigned char>(store ? 0x7f : 0x6f),
               static_cast<unsigned char>(0x84 | (n & 7) << 3), 0x24});
        return value(offset);
    }
    // movabs $function,%rax; call *%rax
    Code& call(void (*function)(void*)) {
        return bytes({0x48, 0xb8}).value(function).bytes({0xff, 0xd0});
    }
    const unsigned char* data() const { return m_bytes; }
    std::size_t size() const { return m_size; }

private:
    unsigned char m_bytes[512];
    std::size_t m_size = 0;
};

// Whether any jump in QtCore's code near `site` lands inside [site + 1, site + length).
bool isJumpedInto(const Segment& text, std::uintptr_t site, std::size_t length) {
    const std::uintptr_t from = site > text.begin + 4096 ? site - 4096 : text.begin;
    const std::uintptr_t to = site + 4096 < text.end - 6 ? site + 4096 : text.end - 6;
    for (std::uintptr_t at = from; at < to; ++at) {
        const auto* code = reinterpret_cast<const unsigned char*>(at);
        std::uintptr_t target = 0;
        if ((code[0] & 0xf0) == 0x70 || code[0] == 0xeb)
            target = at + 2 + static_cast<signed char>(code[1]);
        else if (code[0] == 0x0f && (code[1] & 0xf0) == 0x80)
            target = at + 6 + *reinterpret_cast<const std::int32_t*>(code + 2);
        else if (code[0] == 0xe9)
            target = at + 5 + *reinterpret_cast<const std::int32_t*>(code + 1);
        if (target > site && target < site + length)
            return true;
    }
    return false;
}

// A connection drops its reference to its slot object with "mov 0x38(%base),%reg" and
// "lock subl $1,(%reg)". Each such drop is replaced by a call to code that tells ThreadSanitizer
// what the atomic decrement means (acquire and release on the counter), saving every register
// QtCore may still need, and then does the drop itself, leaving its flags for the branch after.
// Another counter dropped in the same shape means the same thing, so matching it too is sound.
int annotateSlotObjectDrops(const Segment& text, NearJumps& jumps) {
    int annotated = 0;
    for (std::uintptr_t site = text.begin; site + 8 <= text.end; ++site) {
        const auto* code = reinterpret_cast<const unsigned char*>(site);
        const int reg = (code[2] >> 3) & 7;
        const int base = code[2] & 7;
        if (code[0] != 0x48 || code[1] != 0x8b || (code[2] & 0xc0) != 0x40 || base == 4 ||
            code[3] != 0x38 || code[4] != 0xf0 || code[5] != 0x83 || code[6] != (0x28 | reg) ||
            code[7] != 0x01 || isJumpedInto(text, site, 8))
            continue;
        Code stub;
        stub.bytes({0x50, 0x51, 0x52, 0x56, 0x57, 0x41, 0x50, 0x41, 0x51, 0x41, 0x52, 0x41, 0x53});
        stub.bytes({0x48, 0x8b, static_cast<unsigned char>(0x78 | base), 0x38}); // the counter
        stub.bytes({0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xe4, 0xf0});            // align
        stub.bytes({0x48, 0x81, 0xec}).value(std::int32_t(272));
        for (int n = 0; n < 16; ++n)
            stub.xmm(n, n * 16, true);
        stub.bytes({0x48, 0x89, 0xbc, 0x24}).value(std::int32_t(256)); // keep the counter
        stub.call(__tsan_acquire);
        stub.bytes({0x48, 0x8b, 0xbc, 0x24}).value(std::int32_t(256));
        stub.call(__tsan_release);
        for (int n = 0; n < 16; ++n)
            stub.xmm(n, n * 16, false);
        stub.bytes({0x48, 0x89, 0xec, 0x5d});
        stub.bytes({0x41, 0x5b, 0x41, 0x5a, 0x41, 0x59, 0x41, 0x58, 0x5f, 0x5e, 0x5a, 0x59, 0x58});
        stub.bytes({code[0], code[1], code[2], code[3], code[4], code[5], code[6], code[7], 0xc3});
        const std::uintptr_t to = jumps.addCode(stub.data(), stub.size());
        // "call rel32" and a three-byte nop in place of the eight bytes.
        unsigned char call[8] = {0xe8, 0, 0, 0, 0, 0x0f, 0x1f, 0x00};
        const auto offset = static_cast<std::int32_t>(std::intptr_t(to) - std::intptr_t(site + 5));
        std::memcpy(call + 1, &offset, sizeof offset);
        writeCode(site, call, sizeof call);
        ++annotated;
        site += 7;
    }
    return annotated;
}

void patchRel32(std::uintptr_t site, std::uintptr_t to) {
    const auto offset = static_cast<std::int32_t>(std::intptr_t(to) - std::intptr_t(site + 5));
    writeCode(site + 1, &offset, sizeof offset);
}

// Points every direct "call rel32" or "jmp rel32" in QtCore to a hooked function at its hook:
// QtCore binds calls to its own functions directly, past any interposed definition.
void redirectDirectCalls(const Segment& text, Hook* hooks, std::size_t count) {
    for (std::uintptr_t site = text.begin; site + 5 <= text.end; ++site) {
        const auto opcode = *reinterpret_cast<const unsigned char*>(site);
        if (opcode != 0xe8 && opcode != 0xe9)
            continue;
        std::int32_t offset;
        std::memcpy(&offset, reinterpret_cast<const void*>(site + 1), sizeof offset);
        const std::uintptr_t target = site + 5 + std::intptr_t(offset);
        for (std::size_t i = 0; i < count; ++i) {
            if (target == hooks[i].from) {
                patchRel32(site, hooks[i].to);
                ++hooks[i].redirected;
                site += 4;
                break;
            }
        }
    }
}

void* qtCoreSymbol(const char* name) {
    void* address = dlsym(RTLD_NEXT, name);
    if (!address)
        fail(name);
    return address;
}

__attribute__((constructor)) void installEdges() {
    Hook hooks[] = {
        hook("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi", real.postEvent, postEventHook,
             true),
        hook("_ZN14QMetaCallEventD2Ev", real.metaCallEventDestructor, metaCallEventDestructorHook),
        hook("_ZN7QObjectD2Ev", real.objectDestructor, objectDestructorHook, true),
        hook("_ZN10QArrayData10deallocateEPS_xx", real.deallocate, deallocateHook, true),
        hook("_ZN10QSemaphore7releaseEi", real.semaphoreRelease, semaphoreReleaseHook),
        hook("_ZN10QSemaphore7acquireEi", real.semaphoreAcquire, semaphoreAcquireHook),
        hook("_ZN10QSemaphore10tryAcquireEi", real.semaphoreTryAcquire, semaphoreTryAcquireHook),
        hook("_ZN10QSemaphore10tryAcquireEii", real.semaphoreTryAcquireTimed,
             semaphoreTryAcquireTimedHook),
        hook("_ZN14QWaitCondition7wakeAllEv", real.wakeAll, wakeAllHook, true),
        hook("_ZN7QThread4waitE14QDeadlineTimer", real.threadWait, threadWaitHook),
        hook("_ZN7QObject12moveToThreadEP7QThread", real.moveToThread, moveToThreadHook),
        hook("_ZN11QBasicMutex12lockInternalEv", real.lock, lockHook, true),
        hook("_ZN11QBasicMutex12lockInternalEi", real.timedLock, timedLockHook),
        hook("_ZN11QBasicMutex14unlockInternalEv", real.unlock, unlockHook, true),
    };
    Segment text;
    if (!dl_iterate_phdr(findQtCoreText, &text))
        fail("QtCore is not loaded");
    NearJumps jumps(text);
    for (Hook& h : hooks) {
        *h.real = qtCoreSymbol(h.name);
        h.from = reinterpret_cast<std::uintptr_t>(*h.real);
        h.to = jumps.add(h.hook);
    }
    // A vtable symbol names the table; objects point two entries in, past offset and type info.
    metaCallEventVtable = static_cast<void**>(qtCoreSymbol("_ZTV14QMetaCallEvent")) + 2;
    slotObjectOffset = findSlotObjectOffset(*hooks[1].real);
    sharedRefcountOffset = findSharedRefcountOffset(
        qtCoreSymbol("_ZN15QtSharedPointer20ExternalRefCountData9getAndRefEPK7QObject"));
    if (!slotObjectOffset || !sharedRefcountOffset)
        fail("QtCore's code does not look as expected: the offsets of a slot object or of a "
             "weak reference count are unknown");

    redirectDirectCalls(text, hooks, sizeof hooks / sizeof hooks[0]);
    if (annotateSlotObjectDrops(text, jumps) == 0)
        fail("found no connection dropping its slot object");
    jumps.seal();
    for (const Hook& h : hooks) {
        if (h.required && h.redirected == 0)
            fail(h.name);
    }
    if (!QInternal::registerCallback(QInternal::EventNotifyCallback, deliverEventHook))
        fail("cannot register the event-notify callback");
}

} // namespace

// Interposed for callers outside QtCore; the names are QtCore's exported (mangled) ones.
TSANQT_EXPORT void
tsanQtPostEvent(QObject* receiver, QEvent* event,
                int priority) __asm__("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
void tsanQtPostEvent(QObject* receiver, QEvent* event, int priority) {
    postEventHook(receiver, event, priority);
}

TSANQT_EXPORT void tsanQtMetaCallEventDestructor(void* event) __asm__("_ZN14QMetaCallEventD2Ev");
void tsanQtMetaCallEventDestructor(void* event) {
    metaCallEventDestructorHook(event);
}
TSANQT_EXPORT void
tsanQtMetaCallEventCompleteDestructor(void* event) __asm__("_ZN14QMetaCallEventD1Ev");
void tsanQtMetaCallEventCompleteDestructor(void* event) {
    metaCallEventDestructorHook(event);
}

TSANQT_EXPORT void tsanQtObjectDestructor(QObject* object) __asm__("_ZN7QObjectD2Ev");
void tsanQtObjectDestructor(QObject* object) {
    objectDestructorHook(object);
}
TSANQT_EXPORT void tsanQtObjectCompleteDestructor(QObject* object) __asm__("_ZN7QObjectD1Ev");
void tsanQtObjectCompleteDestructor(QObject* object) {
    objectDestructorHook(object);
}

TSANQT_EXPORT void
tsanQtDeallocate(QArrayData* data, std::ptrdiff_t objectSize,
                 std::ptrdiff_t alignment) __asm__("_ZN10QArrayData10deallocateEPS_xx");
void tsanQtDeallocate(QArrayData* data, std::ptrdiff_t objectSize, std::ptrdiff_t alignment) {
    deallocateHook(data, objectSize, alignment);
}

TSANQT_EXPORT void tsanQtSemaphoreRelease(QSemaphore* semaphore,
                                          int n) __asm__("_ZN10QSemaphore7releaseEi");
void tsanQtSemaphoreRelease(QSemaphore* semaphore, int n) {
    semaphoreReleaseHook(semaphore, n);
}
TSANQT_EXPORT void tsanQtSemaphoreAcquire(QSemaphore* semaphore,
                                          int n) __asm__("_ZN10QSemaphore7acquireEi");
void tsanQtSemaphoreAcquire(QSemaphore* semaphore, int n) {
    semaphoreAcquireHook(semaphore, n);
}
TSANQT_EXPORT bool tsanQtSemaphoreTryAcquire(QSemaphore* semaphore,
                                             int n) __asm__("_ZN10QSemaphore10tryAcquireEi");
bool tsanQtSemaphoreTryAcquire(QSemaphore* semaphore, int n) {
    return semaphoreTryAcquireHook(semaphore, n);
}
TSANQT_EXPORT bool
tsanQtSemaphoreTryAcquireTimed(QSemaphore* semaphore, int n,
                               int timeout) __asm__("_ZN10QSemaphore10tryAcquireEii");
bool tsanQtSemaphoreTryAcquireTimed(QSemaphore* semaphore, int n, int timeout) {
    return semaphoreTryAcquireTimedHook(semaphore, n, timeout);
}

TSANQT_EXPORT void
tsanQtWakeAll(QWaitCondition* condition) __asm__("_ZN14QWaitCondition7wakeAllEv");
void tsanQtWakeAll(QWaitCondition* condition) {
    wakeAllHook(condition);
}

TSANQT_EXPORT bool
tsanQtThreadWait(QThread* thread,
                 QDeadlineTimer deadline) __asm__("_ZN7QThread4waitE14QDeadlineTimer");
bool tsanQtThreadWait(QThread* thread, QDeadlineTimer deadline) {
    return threadWaitHook(thread, deadline);
}

TSANQT_EXPORT void
tsanQtMoveToThread(QObject* object, QThread* thread) __asm__("_ZN7QObject12moveToThreadEP7QThread");
void tsanQtMoveToThread(QObject* object, QThread* thread) {
    moveToThreadHook(object, thread);
}

TSANQT_EXPORT void tsanQtLock(QBasicMutex* mutex) __asm__("_ZN11QBasicMutex12lockInternalEv");
void tsanQtLock(QBasicMutex* mutex) {
    lockHook(mutex);
}
TSANQT_EXPORT bool tsanQtTimedLock(QBasicMutex* mutex,
                                   int timeout) __asm__("_ZN11QBasicMutex12lockInternalEi");
bool tsanQtTimedLock(QBasicMutex* mutex, int timeout) {
    return timedLockHook(mutex, timeout);
}
TSANQT_EXPORT void tsanQtUnlock(QBasicMutex* mutex) __asm__("_ZN11QBasicMutex14unlockInternalEv");
void tsanQtUnlock(QBasicMutex* mutex) {
    unlockHook(mutex);
}
