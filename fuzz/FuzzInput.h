// Fuzz harness support: how a fuzzer input becomes the context a codec reader sees, the
// seed inputs, and the list of targets.
//
// Input layout: byte 0 picks the context, the rest is the packet.
//   bits 0-1  carrying IP addresses: 0 IPv4 (10.0.0.1 -> 224.0.0.13), 1 IPv6
//             (fe80::1 -> ff02::d), 2-3 none (the "no address family" path)
//   bits 2-4  offset at which the reader starts, 0-7 (it may lie past the packet's end)
//   bit  5    repair the PIM checksum at that offset first, so that mutations get past
//             the header check into the message body
//   bit  6    tracing on at level 9 into a discarding sink, so that trace formatting runs
//             on hostile values too
//   bit  7    left to each target (readJoinPruneMessage: boundary and bidirectional filters)
// Each target is a plain function returning the reader's result (bytes consumed, 0 on
// rejection); it aborts when a round-trip property fails. The libFuzzer entry point is
// FuzzEntry.cpp, built once per target in the fuzz build, so tests/FuzzRegressionTest.cpp
// can link all targets into one program and replay inputs through them.
//
// Threading: single-threaded, like the codec.
//
// Usage (one target):
//   std::uint32_t PimFuzz::readFoo(const std::uint8_t* data, std::size_t size) {
//     auto in = PimFuzz::decode(data, size);
//     if (!in) return 0;
//     ...read at in->offset in in->pkt, write back, PimFuzz::check(same, "why");
//   }
// and a row in kTargets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace PimFuzz {

enum class Family : std::uint8_t { Ipv4 = 0, Ipv6 = 1, None = 2 };

struct Input {
  Kel::Ptr<Nimo::Pkt> pkt;
  std::uint32_t offset = 0;
  Nimo::IpGenAddr srcIp;
  Nimo::IpGenAddr dstIp;
};

// Decodes byte 0 and copies the packet; nullopt for an empty or oversized input.
std::optional<Input> decode(const std::uint8_t* data, std::size_t size);

// The inverse, for seeds: byte 0 followed by the packet, with offset bytes of filler first.
std::vector<std::uint8_t> encode(Family family, std::uint8_t offset, bool repairChecksum,
                                 const std::vector<std::uint8_t>& message);

// A failed property: prints what and aborts, which libFuzzer and the test both report.
void check(bool ok, const char* what);

// Tracing on at level 9 into a discarding sink, or off: decode() follows context bit 6.
void traceIs(bool on);

using Target = std::uint32_t (*)(const std::uint8_t* data, std::size_t size);
std::uint32_t readHeader(const std::uint8_t* data, std::size_t size);
std::uint32_t readUnicastAddress(const std::uint8_t* data, std::size_t size);
std::uint32_t readGroupAddress(const std::uint8_t* data, std::size_t size);
std::uint32_t readSourceAddress(const std::uint8_t* data, std::size_t size);
std::uint32_t readHelloMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readJoinPruneMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readRegisterMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readRegisterStopMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readAssertMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readBootstrapMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readCrpAdvMessage(const std::uint8_t* data, std::size_t size);
std::uint32_t readDfElectionMessage(const std::uint8_t* data, std::size_t size);
// pimdump's path from an IP packet to JSON; the input is the IP packet itself.
std::uint32_t pimdumpFrame(const std::uint8_t* data, std::size_t size);
// The receive path (IOSm::processPkt): byte 0 its own context (ProcessPktFuzz.cpp), then
// the IP packet as the socket hands it over; 1 when accepted, else 0.
std::uint32_t processPkt(const std::uint8_t* data, std::size_t size);
// The PORT messages of PIM over a reliable transport, and the Join/Prunes inside.
std::uint32_t readPortFrame(const std::uint8_t* data, std::size_t size);

// The targets by name: the fuzzers' binary suffix (pimfuzz_<name>) and corpus directory.
struct NamedTarget {
  std::string_view name;
  Target target;
};
inline constexpr NamedTarget kTargets[] = {
    {"readHeader", &readHeader},
    {"readUnicastAddress", &readUnicastAddress},
    {"readGroupAddress", &readGroupAddress},
    {"readSourceAddress", &readSourceAddress},
    {"readHelloMessage", &readHelloMessage},
    {"readJoinPruneMessage", &readJoinPruneMessage},
    {"readRegisterMessage", &readRegisterMessage},
    {"readRegisterStopMessage", &readRegisterStopMessage},
    {"readAssertMessage", &readAssertMessage},
    {"readBootstrapMessage", &readBootstrapMessage},
    {"readCrpAdvMessage", &readCrpAdvMessage},
    {"readDfElectionMessage", &readDfElectionMessage},
    {"pimdumpFrame", &pimdumpFrame},
    {"processPkt", &processPkt},
    {"readPortFrame", &readPortFrame},
};

// Valid inputs for a target, built with the codec's writers plus a few by hand: the
// fuzzers' seed corpus and the fixed inputs of the regression test. Each is accepted by
// its target.
std::vector<std::vector<std::uint8_t>> seeds(std::string_view target);
// The sample captures' messages for a target.
std::vector<std::vector<std::uint8_t>> sampleSeeds(std::string_view target);

}  // namespace PimFuzz
