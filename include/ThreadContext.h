#pragma once
// The words the public headers use for who may call a member, whether it blocks, and what a
// client may touch. Every public member's comment says at least "Thread: <context>" or
// "Internal: <reason>"; scripts/check-contracts.py keeps it so. This header declares nothing.
//
// Thread contexts ("Thread: ..."):
//   request thread   The one thread per sensor that builds, prepares and sends that sensor's
//                    frames: prepare, sendJobForConfigure or setConfigured, sendJobForEnque,
//                    in the sensor's own frame order. "the sensor's request thread" is the one
//                    of the sensor named by the call's sensorId.
//   event thread     The pipeline's thread that reports events through notifyEvent (drops,
//                    flushes, in-flight reports) and calls flush after a Flush event.
//   any thread       Any thread, concurrently with the others; the member takes the locks it
//                    needs (or reads only constants).
//   setup            Before any request or event thread starts using the object, or after all
//                    of them have stopped; no other thread is inside the library.
//   A contract may name several, for example "request thread or event thread".
//
// Blocking ("Blocks: ..."):
//   Blocks: no                       Takes at most the library's short-held locks, which no
//                                    holder keeps across a wait.
//   Blocks: on <what>, until <cond>  May wait for another thread: the guard's ordering, a
//                                    lock held across a job or a pipe manager call.
//
// Client access:
//   Internal: <reason>   Public only because the exported layout fixes the class's members, or
//                        because another of the library's classes (or its tools and tests)
//                        reaches it. Clients do not call, lock or write it; the library's
//                        behaviour assumes nobody else does.
//
// Misuse ("Aborts: ..."): the text in double quotes is the exact message of the fatal
// assertion that ends the process, with its printf conversions as the library writes them.
