// A sound server of the test's own: started in the foreground as a child of
// the test, so that the test holds its PID and can kill it and start it again
// on the same socket, as a crash and a restart would. It gets its own runtime
// folder and one null sink named like the shared test server's.
//
// The platform connects to the server named in PULSE_SERVER when it first
// needs one, so a test using this must point the variable here (use()) before
// anything in its process talks to a server: every test case runs in a
// process of its own under CTest.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tavro::test {

class PrivateSoundServer {
  public:
    PrivateSoundServer() {
        char tmpl[] = "/tmp/tavro-own-pulse.XXXXXX";
        if (mkdtemp(tmpl)) dir_ = tmpl;
    }
    ~PrivateSoundServer() {
        kill();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    PrivateSoundServer(const PrivateSoundServer&) = delete;
    PrivateSoundServer& operator=(const PrivateSoundServer&) = delete;

    std::string address() const { return "unix:" + dir_ + "/pa.sock"; }
    void use() const { setenv("PULSE_SERVER", address().c_str(), 1); }
    pid_t pid() const { return pid_; }

    // Starts the server and waits until it answers (false after 10 s).
    bool start() {
        if (dir_.empty()) return false;
        // Everything the child needs is made before the fork: the test's
        // process has threads, and the child may only exec.
        std::vector<std::string> args = {
            "pulseaudio", "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1", "--disallow-exit",
            "--log-target=file:" + dir_ + "/pulse.log",
            "--load=module-native-protocol-unix auth-anonymous=1 socket=" + dir_ + "/pa.sock",
            "--load=module-null-sink sink_name=tavro_test rate=48000 channels=2 format=float32le "
            "sink_properties=device.description=TavroTestSink"};
        std::vector<std::string> env = {"PULSE_RUNTIME_PATH=" + dir_, "PULSE_STATE_PATH=" + dir_, "HOME=" + dir_,
                                        "PATH=/usr/bin:/bin"};
        std::vector<char*> argv, envp;
        for (auto& a : args) argv.push_back(a.data());
        for (auto& e : env) envp.push_back(e.data());
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            execve("/usr/bin/pulseaudio", argv.data(), envp.data());
            _exit(127);
        }
        if (pid_ < 0) return false;
        for (int i = 0; i < 200; ++i) {
            if (pactl("info") == 0) return true;
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // Kills the server outright, as a crash would.
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    // Runs pactl against this server; its exit status.
    int pactl(const std::string& args) const {
        const std::string cmd = "PULSE_SERVER=" + address() + " pactl " + args + " >/dev/null 2>&1";
        return std::system(cmd.c_str());
    }

  private:
    std::string dir_;
    pid_t pid_ = -1;
};

} // namespace tavro::test
