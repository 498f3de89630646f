#include "lac_task.h"

#include "lac_memory.h"
#include "lac_timer.h"

#include "sysutil/sysutil.h"

#include <atomic>
#include <cstdarg>
#include <unistd.h>

namespace
{

LacDispatcher dispatcher;
void (*watch)();

// Messages that the queue keeps room for, and whether it is for the calling thread.
std::atomic<std::size_t> room_taken;
thread_local bool has_room;

constexpr useconds_t DISPATCH_PAUSE_US = 100;
constexpr unsigned TICK_SECONDS = 1;
constexpr unsigned SWITCH_SECONDS = 1; // what set_lac_global_enable leaves the dispatcher
constexpr std::uint32_t TICK_FAILURES_REPORTED = 26;
constexpr std::uint64_t STALL_MS = 1000;
constexpr char SOURCE_NAME[] = "services/l2/lacpd/lac_task";

void wait_for_send_lock()
{
    while (sem_wait(&lac_task_sem) != 0) // interrupted by a signal
        ;
}

} // namespace

LacQueue Lac_Queue;
sem_t lac_task_sem;
LacDrvCtrl *lacDrvCtrl;
Published<std::uint64_t> lacTicks;
SystemThread *lacRecv_tid;
SystemThread *lacTimer_tid;
Published<std::uint32_t> lacDebug;

// ---- queue ----------------------------------------------------------------------------------------------------

int LacQueue::create() noexcept
{
    const std::lock_guard guard(lock_);
    if (sem_init(&items_, 0, 0) != 0)
        return LAC_FAILED;
    first_ = size_ = 0;
    created_ = true;
    return LAC_OK;
}

int LacQueue::count() noexcept
{
    const std::lock_guard guard(lock_);
    return created_ ? static_cast<int>(size_) : LAC_FAILED;
}

template <typename Matches> std::size_t LacQueue::waiting(Matches matches) noexcept
{
    const std::lock_guard guard(lock_);
    std::size_t found = 0;
    for (std::size_t i = 0; i < size_; ++i)
        found += matches(ring_[(first_ + i) % ring_.size()]);
    return found;
}

bool LacQueue::hasTick() noexcept
{
    return waiting([](const LacQueueMsg &message) { return message.code == LAC_Q_TICK; }) != 0;
}

static bool is_port(std::uint64_t number)
{
    return number >= 1 && number <= LAC_MAX_PORTS;
}

bool LacQueue::holdsAllowanceOf(std::uint64_t port, std::uint8_t subtype) noexcept
{
    const bool is_lacpdu = subtype == LAC_SUBTYPE_LACP;
    const auto same = [port, is_lacpdu](const LacQueueMsg &message) {
        return message.code == LAC_Q_PDU && (message.port == port || (!is_port(message.port) && !is_port(port))) &&
               (*reinterpret_cast<const std::uint8_t *>(message.payload) == LAC_SUBTYPE_LACP) == is_lacpdu;
    };
    return waiting(same) >= (is_lacpdu ? LAC_PORT_LACPDU_LIMIT : LAC_PORT_OTHER_PDU_LIMIT);
}

bool LacQueue::isStalled() noexcept
{
    const std::lock_guard guard(lock_);
    return size_ != 0 && lac_now_ms() - taken_ms_ > STALL_MS;
}

bool LacQueue::push(const LacQueueMsg &message) noexcept
{
    const std::lock_guard guard(lock_);
    if (!created_ || size_ == ring_.size())
        return false;
    if (size_ == 0)
        taken_ms_ = lac_now_ms();
    ring_[(first_ + size_++) % ring_.size()] = message;
    return sem_post(&items_) == 0;
}

bool LacQueue::take(LacQueueMsg &message) noexcept
{
    const std::lock_guard guard(lock_);
    if (size_ == 0)
        return false;
    message = ring_[first_];
    first_ = (first_ + 1) % ring_.size();
    --size_;
    taken_ms_ = lac_now_ms();
    return true;
}

bool LacQueue::wait(LacQueueMsg &message) noexcept
{
    return sem_wait(&items_) == 0 && take(message);
}

bool LacQueue::tryPop(LacQueueMsg &message) noexcept
{
    return sem_trywait(&items_) == 0 && take(message);
}

// ---- sending --------------------------------------------------------------------------------------------------

static int refuse(std::uint64_t code, std::uint64_t payload)
{
    if (code == LAC_Q_PDU)
        qfree(MTYPE_LACP_PDU, reinterpret_cast<void *>(payload));
    return LAC_FAILED;
}

static int report_full()
{
    printf("\r\nMsg: %s lac queue is full,cann't send any more\n\r", "lacQSend");
    return LAC_FAILED;
}

static int try_send(std::uint64_t code, std::uint64_t payload, std::uint64_t port)
{
    const int waiting = Lac_Queue.count();
    if (waiting < 0) {
        printf("\r\nMsg %s get lac queue infom failed\n\r", "lacQSend");
        return refuse(code, payload);
    }
    lac_trace(LAC_DBG_QUEUE, "\r\n %s lac queue code %08lx msgNum %d\n\r", "lacQSend", code, waiting);
    const std::size_t kept = has_room ? 0 : room_taken.load();
    if (static_cast<std::size_t>(waiting) + kept >= LAC_QUEUE_LIMIT) {
        report_full();
        return refuse(code, payload);
    }
    if (!Lac_Queue.push({1, code, payload, port})) {
        printf("\r\nMsg %s send a lac message failed\n\r", "lacQSend");
        return refuse(code, payload);
    }
    return LAC_OK;
}

int lacQSend(std::uint64_t code, std::uint64_t payload, std::uint64_t port)
{
    const int result = try_send(code, payload, port);
    lac_trace(LAC_DBG_LOCK, "\n lacQSend post task semaphore\r");
    sem_post(&lac_task_sem);
    return result;
}

int lacWaitAndSend(const char *sender, std::uint64_t code, std::uint64_t payload, std::uint64_t port)
{
    lac_trace(LAC_DBG_LOCK, "\r\n %s wait task semaphore\r", sender);
    wait_for_send_lock();
    return lacQSend(code, payload, port);
}

LacQueueRoom::LacQueueRoom(std::size_t messages) : outer_(has_room)
{
    if (outer_)
        return;
    wait_for_send_lock();
    const int waiting = Lac_Queue.count();
    has_room = waiting >= 0 && static_cast<std::size_t>(waiting) + messages <= LAC_QUEUE_LIMIT;
    if (has_room)
        room_taken = messages;
    else
        report_full();
    sem_post(&lac_task_sem);
}

LacQueueRoom::~LacQueueRoom()
{
    if (outer_)
        return;
    room_taken = 0;
    has_room = false;
}

LacQueueRoom::operator bool() const
{
    return has_room;
}

std::uint32_t get_lac_global_enable()
{
    return lacDrvCtrl == nullptr ? 0 : lacDrvCtrl->lac_enable.get();
}

void set_lac_global_enable(std::uint32_t value)
{
    if (value == get_lac_global_enable())
        return;
    lacWaitAndSend("set_lac_global_enable", value == 1 ? LAC_Q_LACP_ON : LAC_Q_LACP_OFF, 0, 0);
    sleep(SWITCH_SECONDS);
}

// ---- threads --------------------------------------------------------------------------------------------------

static void *lacRecvTask(SystemThread *)
{
    lac_trace(LAC_DBG_LOCK, "\n lacRecvTask post task semaphore\r");
    sem_post(&lac_task_sem);
    for (;;) {
        usleep(DISPATCH_PAUSE_US);
        LacQueueMsg message;
        const bool received = Lac_Queue.wait(message);
        lac_trace(LAC_DBG_QUEUE, "\r\n %s lac queue receive status %lx code %lx\n\r", "lacRecvTask",
                  received ? sizeof(message) - sizeof(message.type) : ~0UL, received ? message.code : 0UL);
        if (received)
            dispatcher(message);
        lacTicks += received && message.code == LAC_Q_TICK;
    }
}

static int send_tick()
{
    lac_trace(LAC_DBG_LOCK, "\n lacTimerTask wait task semaphore for timer tick\r");
    wait_for_send_lock();
    return lacQSend(LAC_Q_TICK, 0, 0);
}

static bool is_reported(std::uint32_t &count)
{
    count = (count + 1) % TICK_FAILURES_REPORTED;
    return count == 0;
}

void lacSendTick(LacTickCounts &counts)
{
    if (Lac_Queue.hasTick()) {
        if (is_reported(counts.waiting))
            printf("LACP Msg: a tick has been waiting for %u seconds, the dispatcher is busy!\n",
                   TICK_FAILURES_REPORTED * TICK_SECONDS);
        return;
    }
    counts.waiting = 0;
    if (send_tick() == LAC_OK)
        counts.failures = 0;
    else if (is_reported(counts.failures))
        printf("lacTimerTask: Timer Tick send failed.\r");
}

static void *lacTimerTask(SystemThread *)
{
    sleep(TICK_SECONDS);
    if (get_lac_global_enable() == 1) {
        lac_trace(LAC_DBG_LOCK, "\n lacTimerTask wait task semaphore at beginning\r");
        wait_for_send_lock();
        lacQSend(LAC_Q_LACP_ON, 0, 0);
    }
    for (LacTickCounts counts{};;) {
        sleep(TICK_SECONDS);
        lacSendTick(counts);
        if (watch != nullptr)
            watch();
    }
}

static bool start_thread(SystemThread *&thread, const char *name, SystemThreadBody body)
{
    thread = system_pthread_create(name, name, body, 0, nullptr);
    return thread != nullptr && system_pthread_run(thread, 0, nullptr) == 0;
}

void lac_set_dispatcher(LacDispatcher function)
{
    dispatcher = function;
}

void lac_set_watch(void (*function)())
{
    watch = function;
}

int lac_TaskInit()
{
    lac_TimerInit();
    lacDrvCtrl = lac_new_records<LacDrvCtrl>(MTYPE_LACP_DRVCTRL, 1);
    if (sem_init(&lac_task_sem, 0, 0) != 0)
        printf("\r\n Msg:lacInit semaphore initialization failed.\r");
    if (Lac_Queue.create() != LAC_OK) {
        printf("\r\n Msg:create lacTimerTask MsgQId error!");
        sem_post(&lac_task_sem); // no dispatcher will: senders must fail, not hang
        return LAC_FAILED;
    }
    if (!start_thread(lacRecv_tid, "lacpRecv", lacRecvTask)) {
        printf("\r\n Msg:Create lacp receive thread failed!\r");
        sem_post(&lac_task_sem);
        return LAC_FAILED;
    }
    if (!start_thread(lacTimer_tid, "lacpTimer", lacTimerTask))
        printf("\r\n Msg:Create lacp timer thread failed!\r");
    return LAC_OK;
}

void lacpDrvCtrlInit()
{
    lacDrvCtrl->port_count = intf.last_uplink_port;
    lacDrvCtrl->tx_slots = lac_new_records<LacFrame>(MTYPE_LACP_PDU_TX, lacDrvCtrl->port_count + 1);
    lacDrvCtrl->marker_slots = lac_new_records<LacFrame>(MTYPE_LACP_PDU_TX_MARKER, lacDrvCtrl->port_count + 1);
    if ((lacDrvCtrl->tx_slots == nullptr || lacDrvCtrl->marker_slots == nullptr) && lacDebug != 0)
        printf("%s:%d Allocation Error\n", SOURCE_NAME, __LINE__);
}

// ---- trace word -----------------------------------------------------------------------------------------------

void lacDbgCfg(std::uint32_t value)
{
    lacDebug = value;
    printf("\r\nMsg %s lacDebug %08x\n\r", "lacDbgCfg", value);
}

std::uint32_t lacDbgGet()
{
    return lacDebug;
}

void lac_trace_print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}
