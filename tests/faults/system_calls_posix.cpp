#include "faults/system_calls.h"

#include "faults/scenario.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>

namespace kvtest {

std::span<const FaultError> SystemCalls::ErrorsOf(SysCall)
{
    return kFaultErrors;
}

bool SystemCalls::TellsWhy()
{
    return true;
}

bool SystemCalls::ForgetsReads()
{
    return false;
}

bool SystemCalls::WritesTheRest()
{
    return true;
}

#ifdef __x86_64__

namespace {

constexpr int kDescriptors = 1024;
constexpr std::size_t kMostEvents = 100000;

std::string g_folder;
bool g_inside = false;
SysFault g_fault;
std::size_t g_left = 0;  // calls until the fault strikes; 0 never
std::vector<SysEvent> g_events;
// By descriptor: 0 for none of the folder's, else 1 + SysFile.
unsigned char g_files[kDescriptors];

struct Registers {
    long number, a, b, c, d, e, f;
};

// The system call itself, from a place that the filter lets by.
long Really(const Registers& r)
{
    long result;
    register long d asm("r10") = r.d;
    register long e asm("r8") = r.e;
    register long f asm("r9") = r.f;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(r.number), "D"(r.a), "S"(r.b), "d"(r.c), "r"(d), "r"(e), "r"(f)
                 : "rcx", "r11", "memory");
    return result;
}

// 0, or 1 + SysFile.
unsigned char FileOfPath(long address)
{
    const char* path = reinterpret_cast<const char*>(address);
    if (std::strncmp(path, g_folder.c_str(), g_folder.size()) != 0)
        return 0;
    const std::size_t length = std::strlen(path);
    return length > 5 && std::strcmp(path + length - 5, ".info") == 0 ? 2 : 1;
}

unsigned char FileOfDescriptor(long descriptor)
{
    return descriptor >= 0 && descriptor < kDescriptors ? g_files[descriptor] : 0;
}

struct Known {
    SysCall call;
    unsigned char file;
};

// What a call is to the folder; `file` 0 for nothing.
Known Recognise(const Registers& r)
{
    switch (r.number) {
    case SYS_openat: return {SysCall::Open, FileOfPath(r.b)};
    case SYS_read: return {SysCall::Read, FileOfDescriptor(r.a)};
    case SYS_write: return {SysCall::Write, FileOfDescriptor(r.a)};
    case SYS_lseek: return {SysCall::Seek, FileOfDescriptor(r.a)};
    case SYS_fdatasync: return {SysCall::Sync, FileOfDescriptor(r.a)};
    case SYS_close: return {SysCall::Close, FileOfDescriptor(r.a)};
    case SYS_truncate: return {SysCall::Truncate, FileOfPath(r.a)};
    case SYS_unlink: return {SysCall::Unlink, FileOfPath(r.a)};
    default: return {SysCall::Open, 0};
    }
}

long Half(Registers r)
{
    r.c = (r.c + 1) / 2;
    return Really(r);
}

long Answer(const Registers& r)
{
    const Known known = Recognise(r);
    if (known.file == 0 || !g_inside)
        return Really(r);
    const auto file = static_cast<SysFile>(known.file - 1);
    bool fails = false;
    bool half = false;
    if (g_left != 0 && known.call == g_fault.call && file == g_fault.file) {
        half = g_fault.half && g_left == 2;
        if (--g_left == 0) {
            fails = g_fault.error != 0;
            half = !fails;
            if (g_fault.forEver)
                g_left = 1;
        }
    }
    if (g_events.size() < kMostEvents)  // its memory is there already
        g_events.push_back({known.call, file, Scenario::Now(), fails});
    if (!fails && known.call != SysCall::Close && known.call != SysCall::Open) {
        const long result = half ? Half(r) : Really(r);
        const bool moves = known.call == SysCall::Read || known.call == SysCall::Write;
        if (moves && result > 0)
            g_events.back().moved = static_cast<std::size_t>(result);
        return result;
    }
    if (known.call == SysCall::Close) {
        g_files[r.a] = 0;  // also by a close that fails
        const long result = Really(r);
        return fails ? -g_fault.error : result;
    }
    if (fails)
        return -g_fault.error;
    const long descriptor = Really(r);
    if (descriptor >= 0 && descriptor < kDescriptors)
        g_files[descriptor] = known.file;
    return descriptor;
}

void OnTrap(int, siginfo_t*, void* context)
{
    const int saved = errno;
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    registers[REG_RAX] = Answer({registers[REG_RAX], registers[REG_RDI], registers[REG_RSI],
                                 registers[REG_RDX], registers[REG_R10], registers[REG_R8],
                                 registers[REG_R9]});
    errno = saved;
}

// Where the runtime's code lies.
bool FindRuntime(std::uint64_t& begin, std::uint64_t& end)
{
    std::FILE* maps = std::fopen("/proc/self/maps", "re");
    if (!maps)
        return false;
    begin = end = 0;
    char line[512];
    while (std::fgets(line, sizeof line, maps)) {
        unsigned long from = 0;
        unsigned long to = 0;
        char mode[8] = {};
        if (std::sscanf(line, "%lx-%lx %7s", &from, &to, mode) == 3 && mode[2] == 'x' &&
            std::strstr(line, "/libc.so.6")) {
            begin = from;
            end = to;
        }
    }
    std::fclose(maps);
    return begin != 0 && begin >> 32 == end >> 32;
}

}  // namespace

bool SystemCalls::Install(const std::string& folder)
{
    g_folder = folder;
    g_events.reserve(kMostEvents);
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    if (!FindRuntime(begin, end))
        return false;
    struct sigaction action {};
    action.sa_sigaction = OnTrap;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSYS, &action, nullptr);

    constexpr std::uint32_t numbers[] = {SYS_openat,    SYS_read,  SYS_write,    SYS_lseek,
                                         SYS_fdatasync, SYS_close, SYS_truncate, SYS_unlink};
    constexpr std::uint32_t place = offsetof(seccomp_data, instruction_pointer);
    const auto load = [](std::uint32_t offset) {
        return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, offset};
    };
    const auto test = [](int kind, std::uint64_t value, std::size_t yes, std::size_t no) {
        return sock_filter{static_cast<std::uint16_t>(BPF_JMP | BPF_K | kind),
                           static_cast<std::uint8_t>(yes), static_cast<std::uint8_t>(no),
                           static_cast<std::uint32_t>(value)};
    };
    constexpr std::size_t count = std::size(numbers);
    // Jumps count the instructions that they pass over; the last two are "let by" and "trap".
    std::vector<sock_filter> filter{load(place + 4), test(BPF_JEQ, begin >> 32, 0, count + 4),
                                    load(place), test(BPF_JGE, begin, 0, count + 2),
                                    test(BPF_JGE, end, count + 1, 0),
                                    load(offsetof(seccomp_data, nr))};
    for (std::size_t i = 0; i < count; ++i)
        filter.push_back(test(BPF_JEQ, numbers[i], count - i, 0));
    filter.push_back({BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW});
    filter.push_back({BPF_RET | BPF_K, 0, 0, SECCOMP_RET_TRAP});
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

void SystemCalls::Watch(const SysFault& fault)
{
    g_fault = fault;
    g_left = fault.n;
    g_events.clear();
    std::memset(g_files, 0, sizeof g_files);
}

const std::vector<SysEvent>& SystemCalls::Stop()
{
    g_left = 0;
    return g_events;
}

void SystemCalls::Around(bool inside)
{
    g_inside = inside;
}

#else

bool SystemCalls::Install(const std::string&)
{
    return false;  // the registers of a call are known for x86-64 alone
}
void SystemCalls::Watch(const SysFault&) {}
const std::vector<SysEvent>& SystemCalls::Stop()
{
    static const std::vector<SysEvent> none;
    return none;
}
void SystemCalls::Around(bool) {}

#endif

}  // namespace kvtest
