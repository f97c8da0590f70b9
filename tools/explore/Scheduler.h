#pragma once
// A controlled scheduler for real threads. Exactly one managed thread runs at a time; every
// synchronisation operation a managed thread makes is a scheduling point at which a Chooser
// decides which thread goes next.
//
// How operations are caught: this program defines pthread_mutex_lock/trylock/unlock,
// pthread_cond_wait/timedwait/clockwait/signal/broadcast and pthread_rwlock_* itself
// (Interpose.cpp) and exports them. The standard library's std::mutex, std::condition_variable and
// std::shared_mutex call those functions, from inline code in the library and from
// libstdc++.so or libc++.so, and the dynamic linker resolves every such call to this program's
// definitions. The library is compiled and linked unmodified.
//
// Limits, by design:
// - On a managed thread the scheduler models every mutex, condition and rwlock itself and never
//   touches the real object. Calls from unmanaged threads (main, gtest) go to glibc unchanged.
//   An object must therefore not be in use by managed and unmanaged threads at the same time.
// - Calls made from inside the host platform library (logger, pipe manager, properties,
//   trace) go to glibc unchanged too: its locks are leaves that are never held across a
//   scheduling point, so each host call is one atomic step of the calling thread. Exploring
//   their orders would only reorder counter updates of a linearisable component. This holds
//   where the host's locks are taken from inline code (libstdc++); libc++'s std::mutex::lock
//   is out of line, so under libc++ the caller seen is libc++ and the host's locks are
//   scheduling points too: more schedules, the same judgements.
// - Calls from libc++abi (the guard of a function-local static's first use) go to glibc
//   unchanged, so that every schedule offers the same choices whichever ran first.
// - Only synchronisation is a scheduling point. Plain memory shared without a lock (a data
//   race) is not explored; ThreadSanitizer covers that.
// - Scheduling points are taken before a lock, try-lock, shared lock, wait and notify, and at a
//   client wait. An unlock is not one: whoever it lets go was blocked until then, so a
//   preemption just before the unlock gives the same orders as one after it.
// - std::mutex types only (no recursive or error-checking semantics).
//
// State fingerprint. Two runs whose steps touched the same objects in the same order per
// object (each access known by its thread and that thread's step number) reached the same
// state: steps that share no object commute, and each thread is a deterministic program of
// what it read. Each step's footprint is the object of its operation (a wait's condition and
// mutex), the mutexes it unlocks, one object for all host-platform locks (taken inside host
// calls, which are atomic steps), and one object for the client's own state, touched by any
// step during which the thread ran client code (the client says when it enters and leaves the
// library: clientEnter/clientLeave). Each object keeps a hash of its access chain; the
// fingerprint is the sum over objects plus each thread's step count. Objects are known by the
// name given with nameObject, else by address. What it cannot see: memory shared outside
// these objects without synchronisation (the library has none; ThreadSanitizer checks) and
// behaviour that depends on pointer values. Equal 64-bit fingerprints of different states
// (a hash collision) would prune a state wrongly: with five million states in a search the
// chance of any collision is below 10^-6, at the explorer's table limit about 2 * 10^-5.
//
// The client's state. Kept as one object, every step that runs client code conflicts with
// every other such step, and two runs that only ordered independent client steps differently
// never meet. A client that can say what its state is gives a digest of it instead
// (setClientDigest): of the values its threads decide by, not of the records it keeps for
// the checker, and it tells which calls each thread makes into the library (clientCall); the
// state is then the library's access chains, each thread's own sequence of calls and step
// count, the digest, and each thread's pending operation. Two runs that met there differ only
// in the order of records made by steps that did not depend on each other; the search still
// judges the run that met the state second along its default continuation, and every later
// order from the state with the first, and the checker's rules compare pairs of records, each
// pair ordered alike in both wherever it lies.
//
// The library's memory. Pruning by the locks' chains cannot merge two runs in which three
// request threads took the guard's, the pool's and the licence queue's mutexes in different
// orders, even where their critical sections touched different sensors' records and commute:
// the chains remember the order. So the explorer links copies of the library and of the host
// platform compiled with -fsanitize=thread and without its runtime: every load and store they
// make reaches this scheduler (Memory.cpp, at its end), and the state is taken by value.
// - A thread's part: what it read (the values of its loads, its try-locks' answers and its
//   waits' results) since its current call into the library began, and where it stands (its
//   steps in that call, its pending operation, back from a wait or not, its place among a
//   condition's waiters). Equal reads make a thread, a deterministic program, take the same
//   path. Between calls the client's digest and calls (above) say what the thread carries.
// - The memory: every byte the instrumented code wrote, with the place and value of each
//   8-byte granule summed into one hash, kept as writes happen. Its own stack is a thread's
//   own business and left out.
// - Pointers: a run allocates its objects wherever the allocator puts them, so a value or a
//   place in a heap block is taken as the block's id and offset (a pointer just past the end
//   included), the id made of who allocated the block, in which call and how many blocks of
//   its size came before it there; pointers into a managed thread's stack as the thread and
//   depth. Blocks are zeroed when made (padding then reads alike) and forgotten when freed
//   (the program's operator new and delete do both).
// - A reference count's atomic add is not read (see atomicAdd): the count follows from who
//   holds references, and which thread destroys an object is forgotten once its block is
//   freed.
// Who took a lock first is then no state where nothing read or left differs. What it cannot
// see: the standard library's out-of-line code (after a tree's rebalance every node of the
// tree is taken as written, the hash tables' rehash policy as read and written; std::string's
// out-of-line members are not seen, the library keeps no string that threads share), other
// atomics than reference counts, and behaviour that depends on a pointer's value beyond its
// block. Each schedule needs a world of its own: the client gives each a fresh pipe manager
// and restarts licence serials, and the explorer runs one schedule before the search so that
// what is allocated once, on first use, is made before. It is used with a client digest,
// where the instrumented library is linked and not under AddressSanitizer (whose
// instrumentation excludes ThreadSanitizer's); setMemoryState(false) goes back to the locks'
// chains.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orvcam {
namespace explore {

enum class OpKind : uint8_t {
  Start,
  Lock,
  TryLock,
  RdLock,
  WrLock,
  Wait,
  Signal,
  Broadcast,
  ClientWait,
  End,
  Create,  // pthread_create (std::thread's constructor) of a managed thread
  Join,    // pthread_join (std::thread::join) of a managed thread
};
const char* opKindName(OpKind kind);

// One option at a scheduling point: run `thread` (its pending operation), or, with
// `spurious`, wake `thread` from its condition wait without a notification.
struct Choice {
  uint16_t thread = 0;
  bool spurious = false;
  bool operator==(const Choice& o) const { return thread == o.thread && spurious == o.spurious; }
};

// What the chooser is shown at a point with more than one option.
struct ChoicePoint {
  const std::vector<Choice>* options;
  int current;  // the thread that ran last, or -1
  bool currentEnabled;
  uint64_t step;
  // The happens-before fingerprint of the run so far ("State fingerprint" above) with the
  // spurious wake-ups left: equal values mean the same state, whatever the interleaving that
  // reached it. 0 where no fingerprint is kept.
  uint64_t state = 0;
};

// Returns the index into options.
using Chooser = std::function<size_t(const ChoicePoint&)>;

// One executed step, for the readable interleaving and the trace.
struct StepRecord {
  uint16_t thread;
  OpKind op;
  bool spurious;
  const void* object;
  void* caller;    // return address of the synchronisation call
  int other = -1;  // the thread a create made or a join waited for
};

struct BlockedThread {
  std::string thread;
  std::string waitsFor;  // readable: "mutex guard.mutex held by sensor 1"
  void* caller;
};

enum class Outcome { Completed, Deadlock, Fatal, StepLimit };

struct RunResult {
  Outcome outcome = Outcome::Completed;
  std::string fatalMessage;
  std::string fatalThread;
  std::vector<BlockedThread> blocked;  // deadlock; the step limit: every thread left
  std::vector<StepRecord> steps;       // when recording
  uint64_t stepCount = 0;
  uint32_t choicePoints = 0;
  uint32_t spuriousBudget = 0;
  // Every thread of the run by id, the ones it started included ("thread N", or the name
  // given with pthread_setname_np).
  std::vector<std::string> threadNames;
};

struct RunOptions {
  uint32_t spuriousBudget = 0;  // spurious wake-ups per schedule
  uint64_t stepLimit = 200000;
  bool recordSteps = false;
};

class Scheduler {
 public:
  // Runs `bodies` as managed threads, one at a time, until every one has ended, all left are
  // blocked (deadlock), one hit a fatal assertion, or the step limit. `names` label threads.
  // After anything but Completed the threads are left parked forever and the caller must keep
  // whatever they refer to alive (see leak()).
  //
  // Threads a managed thread starts (pthread_create, so std::thread) are managed too: the
  // create is a scheduling point, and the new thread, id after the last one, is runnable from
  // then on. pthread_join of a managed thread is a scheduling point that blocks until the
  // thread has ended; pthread_detach only marks it. The run goes on until every managed thread
  // has ended, those the bodies left running included; one left blocked when the others have
  // ended makes a deadlock. The OS threads are joined when the run completes. Not supported
  // on managed threads: pthread_exit, and thread cancellation.
  static RunResult run(const std::vector<std::function<void()>>& bodies,
                       const std::vector<std::string>& names, const Chooser& chooser,
                       const RunOptions& options);

  // Called on a managed thread: blocks it until `ready()` holds. `ready` is evaluated by the
  // scheduler while no other thread runs. A scheduling point. On an unmanaged thread `ready`
  // must already hold.
  static void waitUntil(const std::function<bool()>& ready, const char* what);
  // Whether the calling thread is managed by a running schedule.
  static bool managed();
  // The calling managed thread's name; empty on an unmanaged thread.
  static std::string currentThreadName();
  // Whether each step that runs client code touches one object for the client's state ("The
  // client's state" below); on by default. Off for a program whose shared memory is all
  // under its locks (data-race free): the state then follows from the order of the steps on
  // each mutex, condition and thread alone. Set from an unmanaged thread before run().
  static void setClientObject(bool on);
  // Called by the client when its thread enters the library (clientLeave) and comes back,
  // and around the library's calls into the client (clientEnter, then clientLeave): each step
  // that runs client code touches the client's state. No-ops on unmanaged threads.
  static void clientEnter();
  static void clientLeave();
  // Called by the client when its thread comes back from a call into the library (not from
  // a callback): as clientEnter, and the call's own part of the thread's state ends.
  static void clientReturn();
  // Replaces the client's access chain in the fingerprint by a digest of its state's value
  // (see "The client's state" above); empty: the chain again. Set before run(), from an
  // unmanaged thread; it stays until set again.
  static void setClientDigest(std::function<uint64_t()> digest);
  // With a digest: the calling thread calls into the library with these arguments (hashed).
  static void clientCall(uint64_t call);
  // Whether runs with a client digest take the library's memory as their state ("The
  // library's memory" above), for a target whose shared memory is all instrumented or in
  // the digest; off until set. Set from an unmanaged thread before run(); it stays until set
  // again.
  static void setMemoryState(bool on);
  // Whether an instrumented library is loaded, i.e. the memory state can be used.
  static bool memoryInstrumented();
  // Called on the thread that sets up each schedule, before it makes the schedule's objects:
  // from here on, heap blocks are known by ids that do not depend on their addresses
  // ("The library's memory"). endSetups() stops it, before the program runs its client
  // unscheduled.
  static void beginSetup();
  static void endSetups();
  // Names an object for the readable output and the state fingerprint. Names stay until
  // forgetNames(), which a target calls before naming the objects of a new run.
  static void nameObject(const void* object, std::string name);
  static void forgetNames();
  static std::string objectName(const void* object);
  // Called from the fatal-assertion hook on a managed thread: records the message and parks
  // the thread for good. Never returns.
  [[noreturn]] static void fatal(const std::string& message);
};

// "function file:line" for a return address (addr2line; slow, for failing schedules only).
std::string describeAddress(void* address);
// The first of the call sites that is the library's or the client's own code, not a lock's
// wrapper in libstdc++ or the scheduler; `caller` is a step's or a blocked thread's.
std::string describeCaller(void* caller);

}  // namespace explore
}  // namespace orvcam
