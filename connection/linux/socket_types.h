// The system's declarations of sockaddr_in, sockaddr_in6, getaddrinfo and inet_ntop, for code that
// is the same on both platforms.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
