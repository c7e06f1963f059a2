// Between the socket and the server.
#pragma once

#include "apps/rendezvous/server.h"
#include "connection/netsock.h"

// Gives the server what has arrived, some hundred datagrams at most, so that the caller gets to
// look at clock and signals. False when there was nothing more to receive.
bool receive_some(lund_socket socket, RendezvousServer& server);

// By this socket.
RendezvousServer::Send send_by(lund_socket socket);
