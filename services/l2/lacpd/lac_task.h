// The protocol's message queue, its dispatcher and timer threads, and the driver-control record.
#pragma once

#include "lacp.h"

#include <array>
#include <mutex>
#include <semaphore.h>

// Message codes. Those from 16 on change what is configured; they carry the value in the payload word.
enum LacQueueCode : std::uint64_t {
    LAC_Q_LACP_ON = 1,
    LAC_Q_LACP_OFF = 2,
    LAC_Q_LINK_UP = 5,
    LAC_Q_LINK_DOWN = 6,
    LAC_Q_PORT_ENABLE = 7,
    LAC_Q_PORT_STATE = 16,
    LAC_Q_PORT_TIMEOUT = 17,
    LAC_Q_PORT_MODE = 18,
    LAC_Q_PORT_PRIORITY = 19,
    LAC_Q_PORT_KEY = 20,
    LAC_Q_PORT_GROUP = 21,
    LAC_Q_PORT_RESELECT = 22,
    LAC_Q_SYSTEM_PRIORITY = 23,
    LAC_Q_SYSTEM_ID = 24,
    LAC_Q_RESUME = 25,
    LAC_Q_GROUP_LIST = 26, // a dynamic group's member list has been changed by somebody else
    LAC_Q_STOP = 27,       // the process is about to end on purpose
    LAC_Q_PDU = 0xFBFBFBFB,
    LAC_Q_TICK = 0xFCFCFCFC,
};

// A configured attribute of a port on its way to its record: the code of its message and the width of its value.
template <typename Value> struct LacAttribute {
    using Type = Value;
    LacQueueCode code;
};
inline constexpr LacAttribute<std::uint32_t> LAC_PORT_STATE{LAC_Q_PORT_STATE};     // 1 LACP on, else off
inline constexpr LacAttribute<std::uint32_t> LAC_PORT_TIMEOUT{LAC_Q_PORT_TIMEOUT}; // 1 short, else long
inline constexpr LacAttribute<std::uint8_t> LAC_PORT_MODE{LAC_Q_PORT_MODE};        // bit 0: active
inline constexpr LacAttribute<std::uint16_t> LAC_PORT_PRIORITY{LAC_Q_PORT_PRIORITY};
inline constexpr LacAttribute<std::uint16_t> LAC_PORT_KEY{LAC_Q_PORT_KEY};
inline constexpr LacAttribute<std::uint32_t> LAC_PORT_GROUP{LAC_Q_PORT_GROUP};

struct LacQueueMsg {
    std::int64_t type; // always 1
    std::uint64_t code;
    std::uint64_t payload; // LAC_Q_PDU: address of a LAC_PDU_SIZE buffer that the queue now owns
    std::uint64_t port;    // 1-based, 0 where no port is meant
};
static_assert(sizeof(LacQueueMsg) == 32);

constexpr std::uint64_t LAC_QUEUE_LIMIT = 128;

// How much of the queue received PDUs may fill, so that a flood from the wire takes neither the ticks' and the
// configuration's room nor another port's, and Markers never that of LACPDUs. Numbers of no port share one allowance.
constexpr std::size_t LAC_PORT_LACPDU_LIMIT = 8;
constexpr std::size_t LAC_PORT_OTHER_PDU_LIMIT = 4;
static_assert((LAC_MAX_PORTS + 1) * (LAC_PORT_LACPDU_LIMIT + LAC_PORT_OTHER_PDU_LIMIT) < LAC_QUEUE_LIMIT);

// A bounded queue of messages: senders never block, one receiver waits. Trivially destructible, since its threads
// outlive the static objects when the process exits.
class LacQueue
{
  public:
    // 0, or -1 when the system refuses the semaphore. Messages that wait are dropped.
    int create() noexcept;
    // Number of messages waiting, or -1 before create().
    int count() noexcept;
    // Whether a tick waits; whether the queue holds a port's allowance of PDUs of this subtype.
    bool hasTick() noexcept;
    bool holdsAllowanceOf(std::uint64_t port, std::uint8_t subtype) noexcept;
    // Whether messages wait of which none has been taken for more than a second.
    bool isStalled() noexcept;
    bool push(const LacQueueMsg &message) noexcept; // false when full or not created
    bool wait(LacQueueMsg &message) noexcept;       // false when interrupted
    bool tryPop(LacQueueMsg &message) noexcept;     // false when empty

  private:
    bool take(LacQueueMsg &message) noexcept;
    template <typename Matches> std::size_t waiting(Matches matches) noexcept;

    std::mutex lock_;
    sem_t items_{};
    bool created_ = false;
    std::array<LacQueueMsg, LAC_QUEUE_LIMIT> ring_{};
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    std::uint64_t taken_ms_ = 0; // when the last message was taken, or the first one came to an empty queue
};

// What has become of the last ticks: how many in a row were not sent, for how long one has been waiting.
struct LacTickCounts {
    std::uint32_t failures;
    std::uint32_t waiting;
};

using LacFrame = std::array<std::uint8_t, LAC_FRAME_SIZE>;

struct LacDrvCtrl {
    Published<std::uint32_t> lac_enable; // written by the dispatcher
    std::uint64_t port_count;
    LacFrame *tx_slots;     // port p uses slot p - 1
    LacFrame *marker_slots; // port p uses slot p - 1
};

extern LacQueue Lac_Queue;
extern sem_t lac_task_sem; // send lock: every sender waits on it, lacQSend posts it
extern LacDrvCtrl *lacDrvCtrl;
extern Published<std::uint64_t> lacTicks; // that the dispatcher has acted on
extern SystemThread *lacRecv_tid;
extern SystemThread *lacTimer_tid;

// Acts on one message, on the dispatcher thread. Frees a PDU and clears the message's reference to it.
using LacDispatcher = void (*)(LacQueueMsg &message);
// Before lac_TaskInit.
void lac_set_dispatcher(LacDispatcher function);
// What the timer thread does once a second, behind its tick. Before lac_TaskInit.
void lac_set_watch(void (*function)());
// Creates queue, send lock and both threads. 0, or -1 when the protocol cannot run. Start-up.
int lac_TaskInit();
void lacpDrvCtrlInit();

// Sends one message; the caller holds the send lock, which is always released. 0 queued, -1 lost (a PDU is freed).
int lacQSend(std::uint64_t code, std::uint64_t payload, std::uint64_t port);
// Takes the send lock under the caller's name and sends.
int lacWaitAndSend(const char *sender, std::uint64_t code, std::uint64_t payload, std::uint64_t port);

// Room in the queue for the messages of one change, which so is sent as a whole or refused as a whole. For the event
// thread only; an object within the life of another uses the room of that one.
class LacQueueRoom
{
  public:
    explicit LacQueueRoom(std::size_t messages);
    ~LacQueueRoom();
    LacQueueRoom(const LacQueueRoom &) = delete;
    LacQueueRoom &operator=(const LacQueueRoom &) = delete;
    explicit operator bool() const;

  private:
    bool outer_;
};

// Sends one tick and counts lost ones (timer thread). While one still waits no other is sent: after a stall of the
// dispatcher the protocol's time goes on from where it stood, instead of running through what was missed at once.
void lacSendTick(LacTickCounts &counts);

void lacDbgCfg(std::uint32_t value);
std::uint32_t lacDbgGet();

std::uint32_t get_lac_global_enable();
// Asks the dispatcher to switch LACP on (1) or off and gives it a second to do so.
void set_lac_global_enable(std::uint32_t value);
