// Replays inputs through a fuzz target without libFuzzer (the normal build
// links this with the target's source). Arguments are files, or folders whose
// files are all replayed (in name order; README and *.md files skipped).
// Each input runs in a child process of its own, so one that crashes or hangs
// is reported by name and the rest still run. An input still running after
// the alarm (20 s, or TAVRO_REPLAY_ALARM seconds) prints the stack it is stuck
// in and fails. Exits non-zero if any input failed or none was found.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) void __sanitizer_print_stack_trace();

namespace fs = std::filesystem;

namespace {

const char* current = "";

void say(const char* s) {
    const ssize_t ignored = write(STDERR_FILENO, s, std::strlen(s));
    (void)ignored;
}

void onAlarm(int) {
    say("replay: ");
    say(current);
    say(": still running at the alarm; stuck here:\n");
    if (__sanitizer_print_stack_trace) __sanitizer_print_stack_trace();
    _exit(124);
}

// The alarm goes to this thread, not to one of the platform's.
void armAlarm(unsigned seconds) {
    std::signal(SIGALRM, onAlarm);
    sigevent ev{};
    ev.sigev_notify = SIGEV_THREAD_ID;
    ev.sigev_signo = SIGALRM;
    ev._sigev_un._tid = gettid();
    timer_t timer;
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(seconds);
    if (timer_create(CLOCK_MONOTONIC, &ev, &timer) != 0 || timer_settime(timer, 0, &when, nullptr) != 0) alarm(seconds);
}

[[noreturn]] void runChild(const std::string& path, unsigned alarmSeconds) {
    current = path.c_str();
    std::ifstream f(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    // Exactly the input's size, as libFuzzer hands it over: reads past it are caught.
    auto data = std::make_unique<uint8_t[]>(bytes.size());
    if (!bytes.empty()) std::memcpy(data.get(), bytes.data(), bytes.size());
    armAlarm(alarmSeconds);
    LLVMFuzzerTestOneInput(data.get(), bytes.size());
    data.reset();
    std::exit(0); // leaks are checked on the way out
}

std::string outcome(int status) {
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        return code == 0 ? "" : code == 124 ? "hung (alarm)" : "exit status " + std::to_string(code);
    }
    if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
    return "stopped";
}

bool skipped(const fs::path& p) {
    const std::string name = p.filename().string();
    return name.starts_with(".") || name.starts_with("README") || p.extension() == ".md";
}

} // namespace

int main(int argc, char** argv) {
    unsigned alarmSeconds = 20;
    if (const char* a = std::getenv("TAVRO_REPLAY_ALARM"); a && std::atoi(a) > 0) alarmSeconds = static_cast<unsigned>(std::atoi(a));
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg = argv[i];
        if (fs::is_directory(arg)) {
            std::vector<std::string> found;
            for (const auto& e : fs::directory_iterator(arg))
                if (e.is_regular_file() && !skipped(e.path())) found.push_back(e.path().string());
            std::sort(found.begin(), found.end());
            inputs.insert(inputs.end(), found.begin(), found.end());
        } else if (fs::is_regular_file(arg)) {
            inputs.push_back(arg.string());
        } else {
            std::fprintf(stderr, "replay: %s: no such file or folder\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    std::vector<std::string> failed;
    for (const auto& path : inputs) {
        std::fflush(nullptr);
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = fork();
        if (pid < 0) {
            std::perror("replay: fork");
            return 2;
        }
        if (pid == 0) runChild(path, alarmSeconds);
        // A child too stuck even for its alarm is killed a little later.
        int status = 0;
        const auto deadline = start + std::chrono::seconds(alarmSeconds + 30);
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const std::string why = outcome(status);
        if (why.empty()) {
            std::printf("replay: ok    %s (%.2f s)\n", path.c_str(), secs);
        } else {
            std::printf("replay: FAIL  %s: %s (%.2f s)\n", path.c_str(), why.c_str(), secs);
            failed.push_back(path + ": " + why);
        }
    }
    std::printf("replay: %zu inputs, %zu failed\n", inputs.size(), failed.size());
    for (const auto& f : failed) std::printf("replay: failed: %s\n", f.c_str());
    return failed.empty() ? 0 : 1;
}
