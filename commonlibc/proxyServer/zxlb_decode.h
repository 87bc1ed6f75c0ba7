// The proxy's side of the event frames (zxlb_frame_layout.h): cuts the bytes
// read from an application process into frames and replays each one into
// that application's engine, as if the process had traced it itself.
//
//   ^ | header_len 12 | total_len | msg_type | "|" | fixed block | strings | \n
//   0   1               5           9          13    14
//
// Framing skips stray newlines, keep-alive records ("10,\n") and garbage up
// to the next "^", moves two bytes on from a bad header and 15 from a frame
// without its final "\n" or of an unknown type, and stops before a frame the
// buffer holds only part of, so that the caller may keep that tail
// (ZXFrameStream). It never reads past the buffer, whatever the bytes say.
//
// A frame well framed but whose string lengths do not fit is consumed and
// dropped; so is an event for a flowpath the proxy does not know.
//
// Flowpaths live in the application's fpi_tls_map, under the process's slot and
// the process's own instance, from their start frame to
// their reset frame, or to the stale-flowpath sweep once older than 300 s.
// Everything here runs on the proxy's one decoding thread: the map, the
// application table and the string scratch are that thread's.
#pragma once

#include <atomic>
#include <cstddef>

struct ZXProxyInstance_t;

// Flowpath map entries ever added, and flowpaths the sweep reset.
extern std::atomic<long long> counterforfpi_tls_map;
extern std::atomic<long long> counterforNumofResetCalled;
// Whole frames that reached no flowpath: their start was refused (no run, no
// record) or never came, their flowpath was reset or swept, or their
// application has no map. Told in the proxy's stop summary.
extern std::atomic<unsigned long long> zxFramesNotReplayed;

// A flowpath older than this is reset by the sweep, which runs at most this
// often per application.
inline constexpr long long ZX_STALE_FP_SECONDS = 300;

// Decodes `readBytes` bytes of application `appIndex`'s process
// `processIndex` (zxProxyApplications()); a trailing partial frame is
// dropped. Always 0.
int decodeMessage(char *buff, int readBytes, int appIndex, int processIndex);
// Replays one frame: `buff` at its fixed block, `len` = total_len - 14.
// 0: replayed or dropped; -1: len not positive or an unknown type; -2: the
// application has no flowpath map (or is unknown).
int readDataMessage(char *buff, long long len, int type, int appIndex, int processIndex);
// Resets the flowpaths of every registered application older than
// ZX_STALE_FP_SECONDS.
void resetFPafterThreshold();

// decodeMessage for one application; returns the bytes consumed, that is
// where a trailing partial frame starts (len when there is none).
std::size_t decodeFrames(ZXProxyInstance_t &app, const char *buf, std::size_t len,
                         int processIndex);

// What one pass of the framing did.
struct ZXFrameScan {
  std::size_t consumed = 0;   // as decodeFrames returns
  std::size_t replayed = 0;   // frames handed to the engine
  std::size_t oversized = 0;  // frames skipped for their declared length
  std::size_t discard = 0;    // bytes of a skipped frame beyond the buffer
};
// decodeFrames with a limit: a frame declaring more than maxFrame bytes (0:
// no limit) is skipped whole, decided on its header alone.
ZXFrameScan scanFrames(ZXProxyInstance_t &app, const char *buf, std::size_t len, int processIndex,
                       std::size_t maxFrame);
