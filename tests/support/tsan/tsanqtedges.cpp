// Happens-before edges of an uninstrumented QtCore, told to ThreadSanitizer.
//
// Debian's QtCore is not built with ThreadSanitizer, so the synchronisation inside it is
// invisible, and every queued call between threads reads as a race. This library is linked
// first into every program of a ThreadSanitizer build (unless the QtCore in use is instrumented
// itself) and tells ThreadSanitizer about QtCore's edges with its public annotations:
//  - posting an event releases on the event; delivering it (QtCore's event-notify callback)
//    acquires on it: queued signals, invokeMethod, deleteLater;
//  - the slot object (functor) a queued call shares with its poster is reference counted inside
//    QtCore: the event's drop of it releases, the poster's drop acquires;
//  - a thread's end happens before a QThread::wait that returns true.
// QtCore binds calls to its own functions directly, so besides interposing the exported entry
// points for callers outside QtCore, the hooks take over QtCore's direct calls to them.
// QMutex needs nothing here: its inline lock and unlock annotate themselves in our code.
// Only QtCore's own edges belong here: a report that none of them explains is a race.
#include <QtCore/qdeadlinetimer.h>
#include <QtCore/qnamespace.h>

#include <sanitizer/tsan_interface.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

class QEvent;
class QObject;
class QThread;
class QWaitCondition;

#define TSANQT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "tsanqtedges: %s\n", what);
    std::abort();
}

template <typename Function> Function realFunction(const char* mangledName) {
    void* address = dlsym(RTLD_NEXT, mangledName);
    if (!address)
        fail(mangledName);
    return reinterpret_cast<Function>(address);
}

using PostEvent = void (*)(QObject*, QEvent*, int);
using Destructor = void (*)(void*);
using WakeAll = void (*)(QWaitCondition*);
using ThreadWait = bool (*)(QThread*, QDeadlineTimer);

PostEvent realPostEvent;
Destructor realMetaCallEventDestructor;
WakeAll realWakeAll;
ThreadWait realThreadWait;
// What a finishing thread has done happens before QThread::wait returns in another. The thread
// wakes its waiters with QWaitCondition::wakeAll as its very last step, under the mutex that
// guards its "finished" flag; but a wait that finds the thread already finished reads that flag
// under QtCore's own (invisible) mutex and sees no wake at all, and the condition lives where
// only QtCore can name it. So every wakeAll releases here once it is done (still under that
// mutex), and a successful QThread::wait acquires here. Coarser than one edge per thread.
char threadsFinished;
const void* metaCallEventVtable;
// Where a QMetaCallEvent keeps its slot object; read from the destructor's code, which drops
// the event's reference to it. Zero when that code does not look as expected.
std::size_t slotObjectOffset;

// Plain loads: this library is not instrumented, and memcpy would be seen as an access.
void* slotObjectOf(const void* metaCallEvent) {
    return *reinterpret_cast<void* const*>(static_cast<const char*>(metaCallEvent) +
                                           slotObjectOffset);
}

void* postedSlotObject(const QEvent* event) {
    const void* vtable = *reinterpret_cast<const void* const*>(event);
    return slotObjectOffset && vtable == metaCallEventVtable ? slotObjectOf(event) : nullptr;
}

void postEventHook(QObject* receiver, QEvent* event, int priority) {
    // The event shares a reference-counted slot object (a functor or lambda) with the poster.
    // The receiver's thread may drop its reference first; the poster's own drop, right after
    // posting, then destroys the functor the receiver ran.
    void* slot = postedSlotObject(event);
    // The poster's writes (the event's arguments, the state they describe) happen before the
    // receiver's thread reads them.
    __tsan_release(event);
    realPostEvent(receiver, event, priority);
    if (slot)
        __tsan_acquire(slot);
}

void metaCallEventDestructorHook(void* event) {
    if (slotObjectOffset) {
        if (void* slot = slotObjectOf(event))
            __tsan_release(slot);
    }
    realMetaCallEventDestructor(event);
}

void wakeAllHook(QWaitCondition* condition) {
    realWakeAll(condition);
    __tsan_release(&threadsFinished);
}

bool threadWaitHook(QThread* thread, QDeadlineTimer deadline) {
    const bool finished = realThreadWait(thread, deadline);
    if (finished)
        __tsan_acquire(&threadsFinished);
    return finished;
}

bool deliverEventHook(void** data) {
    // data holds the receiver, the event and the result; false lets delivery go on.
    __tsan_acquire(data[1]);
    return false;
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

// "mov 0x28(%r12),%rax" then "lock subl $1,(%rax)": the slot object's offset and its release.
std::size_t findSlotObjectOffset(const void* destructor) {
    const auto* code = static_cast<const unsigned char*>(destructor);
    for (int i = 0; i < 0xa0; ++i) {
        if (code[i] == 0x49 && code[i + 1] == 0x8b && code[i + 2] == 0x44 && code[i + 3] == 0x24 &&
            !std::memcmp(code + i + 10, "\xf0\x83\x28\x01", 4))
            return code[i + 4];
    }
    return 0;
}

// A page within a rel32 jump of QtCore's code, for "jmp *0(%rip)" followed by a hook's address.
class NearJumps {
public:
    explicit NearJumps(const Segment& text) {
        m_size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
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
        unsigned char* jump = m_page + 16 * m_used++;
        const unsigned char code[6] = {0xff, 0x25, 0, 0, 0, 0};
        std::memcpy(jump, code, sizeof code);
        std::memcpy(jump + sizeof code, &hook, sizeof hook);
        return reinterpret_cast<std::uintptr_t>(jump);
    }
    void seal() { mprotect(m_page, m_size, PROT_READ | PROT_EXEC); }

private:
    unsigned char* m_page = nullptr;
    std::size_t m_size = 0;
    std::size_t m_used = 0;
};

// Points every direct "call rel32" or "jmp rel32" in QtCore whose target is `from` at `to`:
// QtCore binds calls to its own functions directly, past any interposed definition.
int redirectDirectCalls(const Segment& text, const void* fromFunction, std::uintptr_t to) {
    const auto from = reinterpret_cast<std::uintptr_t>(fromFunction);
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    int redirected = 0;
    for (std::uintptr_t site = text.begin; site + 5 <= text.end; ++site) {
        const auto opcode = *reinterpret_cast<const unsigned char*>(site);
        std::int32_t offset;
        std::memcpy(&offset, reinterpret_cast<const void*>(site + 1), sizeof offset);
        if ((opcode != 0xe8 && opcode != 0xe9) || site + 5 + std::intptr_t(offset) != from)
            continue;
        const std::uintptr_t first = (site + 1) & ~(page - 1);
        void* pages = reinterpret_cast<void*>(first);
        if (mprotect(pages, site + 5 - first, PROT_READ | PROT_WRITE | PROT_EXEC) != 0)
            fail("cannot write QtCore's code");
        const auto newOffset =
            static_cast<std::int32_t>(std::intptr_t(to) - std::intptr_t(site + 5));
        std::memcpy(reinterpret_cast<void*>(site + 1), &newOffset, sizeof newOffset);
        mprotect(pages, site + 5 - first, PROT_READ | PROT_EXEC);
        ++redirected;
        site += 4;
    }
    return redirected;
}

__attribute__((constructor)) void installEdges() {
    realPostEvent = realFunction<PostEvent>("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
    realMetaCallEventDestructor = realFunction<Destructor>("_ZN14QMetaCallEventD2Ev");
    realWakeAll = realFunction<WakeAll>("_ZN14QWaitCondition7wakeAllEv");
    realThreadWait = realFunction<ThreadWait>("_ZN7QThread4waitE14QDeadlineTimer");
    // A vtable symbol names the table; objects point two entries in, past offset and type info.
    metaCallEventVtable = realFunction<const void**>("_ZTV14QMetaCallEvent") + 2;
    slotObjectOffset = findSlotObjectOffset(reinterpret_cast<void*>(realMetaCallEventDestructor));
    if (!slotObjectOffset)
        std::fprintf(stderr, "tsanqtedges: QMetaCallEvent's slot object not found; its "
                             "reference count is not modelled\n");

    Segment text;
    if (!dl_iterate_phdr(findQtCoreText, &text))
        fail("QtCore is not loaded");
    NearJumps jumps(text);
    if (!redirectDirectCalls(text, reinterpret_cast<void*>(realPostEvent),
                             jumps.add(reinterpret_cast<void*>(postEventHook))))
        fail("found no call to postEvent inside QtCore");
    redirectDirectCalls(text, reinterpret_cast<void*>(realMetaCallEventDestructor),
                        jumps.add(reinterpret_cast<void*>(metaCallEventDestructorHook)));
    if (!redirectDirectCalls(text, reinterpret_cast<void*>(realWakeAll),
                             jumps.add(reinterpret_cast<void*>(wakeAllHook))))
        fail("found no call to QWaitCondition::wakeAll inside QtCore");
    jumps.seal();
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
