// The process: it reads the command line, makes sure that it is alone, opens every socket, builds
// the stack, detaches, runs the threads until it is told to stop, joins them and takes everything
// down in the order in which nothing is used after it is gone. It alone knows how many threads
// there are.
//
// Start-up is single-threaded. Afterwards the main thread waits in a join; the signal handlers only
// set the stop flag. It takes no locks.
#include "lb_entry.h"
#include "lx_host.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>

std::atomic<lb_s32_t> stopping{0};
int psfd = -1;
int rawfd_ipip = -1;
int rawfd_gre = -1;
int rawfd_icmp = -1;
int rawfd_icmp6 = -1;
int rawfd_nat = -1;
sockaddr_in rawsin;
sockaddr_in6 rawsin6;
sockaddr_un sun = {AF_UNIX, "/vellb2"};

namespace
{

constexpr const char *LX_INSTALLED_PATH = "/opt/vel/orn/dra/servers/bin/vellb2";
constexpr int LX_GUARD_PROJECT = 90;
constexpr int LX_EXIT_FAILURE = 1;
constexpr int LX_EXIT_RUNNING = 99;
constexpr int LX_MAX_THREADS = 16;
constexpr int LX_TICK_US = 500000;
constexpr int LX_WAKE_US = 50000;
constexpr int LX_WAKE_SIGNAL = SIGUSR1;
constexpr int LX_RCVBUF = 8 * 1024 * 1024;
constexpr int LX_IPV6_HDRINCL = IP_HDRINCL; // the number means something else to IPv6

pthread_t worker_threads[LX_MAX_THREADS];
pthread_t timer_thread;
pthread_t command_thread;

// The threads that exist: all of them, unless one could not be started.
struct lx_running_t {
    int workers;
    bool timer;
    bool command;
};

[[noreturn]] void lx_fatal()
{
    std::exit(LX_EXIT_FAILURE); // NOLINT(concurrency-mt-unsafe): no thread has been started yet
}

void lx_sigterm(int /*sig*/)
{
    stopping.store(1, std::memory_order_relaxed);
}

// Its arrival interrupts a worker's receive; there is nothing else to do.
void lx_sigwake(int /*sig*/) {}

// --- Start-up ------------------------------------------------------------------------------------

// Marks this process as the running one by attaching it to a shared-memory segment. The mark ends
// with the process, however that ends. Returns the segment's id, or -1 when there is no guard: no
// failure of it keeps the process from starting.
int lx_take_guard()
{
    const key_t key = ftok(LX_INSTALLED_PATH, LX_GUARD_PROJECT);
    if (key == -1) {
        std::perror("ftok");
        std::fprintf(stderr,
                     "Warning: a second instance would not be noticed: install vellb2 at %s\n",
                     LX_INSTALLED_PATH);
        return -1;
    }
    const int id = shmget(key, 1, IPC_CREAT);
    if (id == -1) {
        std::perror("shmget");
        return -1;
    }
    shmid_ds ds = {};
    if (shmctl(id, IPC_STAT, &ds) == -1) {
        std::perror("shmctl");
        return id;
    }
    if (ds.shm_nattch == 1) {
        std::fprintf(stderr, "vellb2 process is already running!!!!\n");
        std::exit(LX_EXIT_RUNNING); // NOLINT(concurrency-mt-unsafe): no thread has been started yet
    }
    if (reinterpret_cast<std::intptr_t>(shmat(id, nullptr, 0)) == -1) {
        std::perror("shmat");
    }
    return id;
}

void lx_getrealtimeprio()
{
    sched_param param = {};
    param.sched_priority = sched_get_priority_max(SCHED_FIFO);
    const int rc = sched_setscheduler(0, SCHED_FIFO, &param);
    std::printf("sched_setscheduler(0,fifo,prio=%d) returned %d \n", param.sched_priority, rc);
}

void lx_install_signals()
{
    // Not with SA_RESTART: the signal is there to end a receive.
    struct sigaction wake = {};
    wake.sa_handler = lx_sigwake;
    if (signal(SIGTERM, lx_sigterm) == SIG_ERR || signal(SIGINT, lx_sigterm) == SIG_ERR ||
        sigaction(LX_WAKE_SIGNAL, &wake, nullptr) != 0 || signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        std::perror("error installing signal handler\n");
        std::fprintf(stderr, "ERROR: cannot install signal handler, exiting\n");
        LB_LOG(LX_LOG_STARTUP, "ERROR: installing signal handler,exiting\n");
        lx_fatal();
    }
}

// The default buffer holds some two hundred frames and loses the rest of a burst.
void lx_raise_rcvbuf()
{
    const int wanted = LX_RCVBUF;
    if (setsockopt(psfd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof(wanted)) == 0) {
        return;
    }
    int error = errno;
    int got = 0;
    socklen_t len = sizeof(got);
    if (setsockopt(psfd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof(wanted)) != 0) {
        error = errno;
    }
    // The kernel cuts SO_RCVBUF down to net.core.rmem_max without a word, and reports twice what it
    // lets the frames fill (socket(7)).
    if (getsockopt(psfd, SOL_SOCKET, SO_RCVBUF, &got, &len) == 0 && got >= 2 * wanted) {
        return;
    }
    LB_LOG(LX_LOG_STARTUP,
           "receive buffer is %d bytes instead of %d, errno=%d: frames may be lost under load; run "
           "with CAP_NET_ADMIN or raise net.core.rmem_max\n",
           got / 2, wanted, error);
}

void lx_open_packet()
{
    psfd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (psfd < 0) {
        std::perror("Error, couldn't open packet socket\n");
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not open packet socket\n");
        lx_fatal();
    }
    lx_raise_rcvbuf();
    const int on = 1;
    if (setsockopt(psfd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on)) != 0) {
        const int error = errno;
        LB_LOG(LX_LOG_STARTUP, "frames with VLAN tags will not be recognised, errno=%d\n", error);
    }
    // Only spares the work of receiving them: kernels without the option deliver our own frames,
    // and the workers leave those alone.
    static_cast<void>(setsockopt(psfd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)));
}

int lx_raw_socket(int family, int protocol, const char *label, bool needed)
{
    const int fd = socket(family, SOCK_RAW, protocol);
    if (fd < 0) {
        std::perror(label);
        if (needed) {
            lx_fatal();
        }
    }
    return fd;
}

void lx_open_raw()
{
    rawsin = {};
    rawsin.sin_family = AF_INET;
    rawsin6 = {};
    rawsin6.sin6_family = AF_INET6;
    rawfd_ipip = lx_raw_socket(AF_INET, IPPROTO_IPIP, "Socket:", true);
    rawfd_gre = lx_raw_socket(AF_INET, IPPROTO_GRE, "Socket:", true);
    rawfd_icmp = lx_raw_socket(AF_INET, IPPROTO_ICMP, "Socket:", true);
    rawfd_icmp6 = lx_raw_socket(AF_INET6, IPPROTO_ICMPV6, "ICMPV6 Socket:", false);
    rawfd_nat = lx_raw_socket(AF_INET, IPPROTO_RAW, "NAT Socket:", false);

    const unsigned char flag = 0;
    for (const int fd : {rawfd_ipip, rawfd_gre, rawfd_icmp}) {
        if (setsockopt(fd, IPPROTO_IP, IP_HDRINCL, &flag, sizeof(flag)) != 0) {
            std::perror("setsockopt:");
            lx_fatal();
        }
    }
    // Kernels refuse this one, and an ICMPv6 socket supplies the header anyway.
    if (setsockopt(rawfd_icmp6, IPPROTO_IPV6, LX_IPV6_HDRINCL, &flag, sizeof(flag)) != 0) {
        std::perror("setsockopt:");
    }
}

int lx_open_command()
{
    unlink(sun.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        std::perror("Error, couldn't open domain socket");
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not open domain socket\n");
        lx_fatal();
    }
    const auto len = static_cast<socklen_t>(2 + std::strlen(sun.sun_path));
    if (bind(fd, reinterpret_cast<sockaddr *>(&sun), len) != 0) {
        std::perror("Error, couldn't bind to domain socket");
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not bind to domain socket\n");
        lx_fatal();
    }
    return fd;
}

void lx_become_daemon()
{
    if (daemon(0, 0) != 0) {
        std::perror("error becoming daemon\n");
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not become daemon\n");
    }
}

// --- Threads -------------------------------------------------------------------------------------

void *lx_recv_pthread(void *arg)
{
    lx_recv(*static_cast<int *>(arg));
    return nullptr;
}

void *lx_timeout_pthread(void * /*arg*/)
{
    while (!lx_stopping()) {
        usleep(LX_TICK_US);
        // The stack has logged whatever went wrong, and the next tick comes anyway.
        static_cast<void>(lb_timer_entry());
        lx_log_flush();
    }
    return nullptr;
}

// `name` is what tools such as top show, at most 15 characters.
bool lx_start_thread(pthread_t *thread, void *(*body)(void *), void *arg, const char *name)
{
    const int rc = pthread_create(thread, nullptr, body, arg);
    if (rc != 0) {
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not start thread %s, error %d, stopping\n", name, rc);
        stopping.store(1, std::memory_order_relaxed);
        return false;
    }
    static_cast<void>(pthread_setname_np(*thread, name));
    return true;
}

// Starts all threads, or asks those that did start to stop.
lx_running_t lx_start_threads(int *usockfd)
{
    lx_running_t running = {};
    while (running.workers < argnumworkers) {
        pthread_t *worker = &worker_threads[running.workers];
        if (!lx_start_thread(worker, lx_recv_pthread, &psfd, "vellb2-recv")) {
            return running;
        }
        running.workers++;
    }
    running.timer = lx_start_thread(&timer_thread, lx_timeout_pthread, &psfd, "vellb2-timer");
    if (running.timer) {
        running.command =
            lx_start_thread(&command_thread, lx_command_pthread, usockfd, "vellb2-command");
    }
    return running;
}

// A worker may sit in a receive, or be just about to: so it is woken until it has ended.
void lx_join_worker(pthread_t worker)
{
    while (pthread_tryjoin_np(worker, nullptr) == EBUSY) {
        pthread_kill(worker, LX_WAKE_SIGNAL);
        usleep(LX_WAKE_US);
    }
}

void lx_join_threads(const lx_running_t *running)
{
    if (running->command) {
        pthread_join(command_thread, nullptr);
    }
    if (running->timer) {
        pthread_join(timer_thread, nullptr);
    }
    for (int i = 0; i < running->workers; i++) {
        pthread_kill(worker_threads[i], LX_WAKE_SIGNAL);
    }
    for (int i = 0; i < running->workers; i++) {
        lx_join_worker(worker_threads[i]);
    }
}

void lx_shut_down(int usockfd, int guard)
{
    close(psfd);
    psfd = -1;
    close(usockfd);
    // What could not be retired has been logged, and the process ends.
    static_cast<void>(lb_exit());
    unlink(sun.sun_path);
    if (argforeground == 0) {
        lx_log_flush();
        closelog();
    }
    if (guard != -1) {
        shmctl(guard, IPC_RMID, nullptr);
    }
}

} // namespace

int main(int argc, char **argv)
{
    // Whole lines, also into a pipe or a file.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    lx_parseargs(argc, argv);
    if (argforeground == 0) {
        openlog("vellb2", LOG_NDELAY, arglog);
    }
    const int guard = lx_take_guard();
    if (argregularpriority == 0) {
        lx_getrealtimeprio();
    }
    lx_install_signals();
    lx_open_packet();
    lx_open_raw();
    int usockfd = lx_open_command();
    if (lb_init() != 0) {
        LB_LOG(LX_LOG_STARTUP, "ERROR: could not intialize lb\n");
        lx_fatal();
    }
    if (argforeground == 0) {
        lx_become_daemon();
    }
    const lx_running_t running = lx_start_threads(&usockfd);
    const bool started = running.command; // the last to be started
    lx_join_threads(&running);
    lx_shut_down(usockfd, guard);
    return started ? 0 : LX_EXIT_FAILURE;
}
