// Fault modes: deliberate protocol breaches of the reference server, chosen by --fault, so that
// tests can watch the client meet a broken or vanishing server. Each mode damages one point of
// the first query's answer (and every later one).
#pragma once

#include <cstddef>
#include <string>
#include <utility>

struct NetBuffer;

enum class Fault {
  none,
  close_after_ack,  // send the acknowledgement, then close
  close_mid_frame,  // send half of the first data message, then close
  reset,            // send the acknowledgement, then reset the connection
  byte_by_byte,     // send every message one byte per send call
  too_many_rows,    // announce one row more than the vector size
  unknown_type,     // name an unknown physical type in the acknowledgement
  short_frame,      // answer with a frame length of 3
  huge_frame,       // answer with a frame length of 3 GB
  no_answer,        // accept the query and never answer
};

// The mode named `name` ("close-after-ack", ...); false when there is none of that name.
bool fault_from_name(const std::string& name, Fault* fault);
// The names of all modes, comma-separated, for the usage text.
std::string fault_names();

// What the connection does after a message was sent.
enum class AfterSend { go_on, close, reset, failed };
enum class MessageKind { ack, data, end, error };

// The message built in `buf` (not yet sent) as a whole frame, its length written into the header.
// The bytes are `buf`'s own and stay valid until the next put or clear.
std::pair<const unsigned char*, size_t> built_frame(NetBuffer* buf);

// Sends the message built in `buf` (not yet sent) over `socket` as `fault` prescribes for a
// message of `kind`; the first data or end message of a result is marked by `first_data`.
AfterSend send_message(NetBuffer* buf, int32_t socket, Fault fault, MessageKind kind,
                       bool first_data);
