// The log's control channel: the body of its thread runs here, and its socket and its clock are ours.
#undef NDEBUG
#include <fuzzer/FuzzedDataProvider.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cassert>
#include <string>

#include "log/zenk_log.h"

static void* (*g_body)(void*) = nullptr;
static thread_local FuzzedDataProvider* t_input = nullptr;  // libFuzzer has a thread that sleeps too

struct EndOfInput {};  // leaves the endless cycle

extern "C" {

int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*body)(void*), void*) {
    g_body = body;
    return 0;
}
int __wrap_socket(int, int, int) {
    return -1;
}
ssize_t __wrap_sendto(int, const void* report, std::size_t size, int, const sockaddr*, socklen_t) {
    char list[1025] = "";
    assert(get_modules_list(list) <= 20 && list == std::string(static_cast<const char*>(report), size));
    return static_cast<ssize_t>(size);
}
unsigned __real_sleep(unsigned);
unsigned __wrap_sleep(unsigned seconds) {
    if (t_input == nullptr) return __real_sleep(seconds);
    if (t_input->remaining_bytes() == 0) throw EndOfInput();
    return 0;
}
// Of full length, with the level at its end, or nothing.
ssize_t __wrap_recvfrom(int, void* buffer, std::size_t room, int, sockaddr*, socklen_t*) {
    std::string command = t_input->ConsumeRandomLengthString(room - 1);
    if (command.empty()) return -1;
    command.resize(room - 1);
    command.push_back(t_input->ConsumeIntegral<char>());
    return static_cast<ssize_t>(command.copy(static_cast<char*>(buffer), room));
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    t_input = &input;
    if (g_body == nullptr) zenk_log_initialize(1);
    clear_modules_list();
    try {
        g_body(nullptr);
    } catch (const EndOfInput&) {
    }
    return 0;
}

}  // extern "C"
