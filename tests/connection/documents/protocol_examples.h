// The examples of docs/protocol.md, made by the code that they describe.
#pragma once

#include "connection/secure.h"
#include "tests/connection/documents/example.h"

namespace protocol_examples {

// What the examples are made from.
inline constexpr std::uint32_t SESSION_ID = 0x11223344;
inline constexpr char CLIENT_NAME[] = "Laptop";
inline constexpr char HOST_NAME[] = "Tower";
inline constexpr char PIN[] = "123456";
inline constexpr char PASSWORD[] = "correct horse";
inline constexpr char RELAY_KEY[] = "example-key";

lund_keypair keypair_of(const Bytes& secret);
lund_keypair client_keypair();
lund_keypair host_keypair();
lund_keypair server_keypair();

void add_session_packets(Examples& examples);
void add_media_packets(Examples& examples);
void add_key_material(Examples& examples);
void add_pairing(Examples& examples);
void add_handshake(Examples& examples);
void add_rendezvous(Examples& examples);

}  // namespace protocol_examples
