// The system's declarations of sockaddr_in, sockaddr_in6 and getaddrinfo, for code that is the same
// on both platforms.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
