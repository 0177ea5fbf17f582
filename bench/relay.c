/* The bare relay that the application is compared with: receives a datagram, sends one on.
 *   relay LISTEN_ADDRESS LISTEN_PORT TO_ADDRESS TO_PORT BYTES_OUT
 * Ends with SIGTERM. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static struct sockaddr_in endpoint(const char* address, const char* port) {
  struct sockaddr_in result;
  memset(&result, 0, sizeof result);
  result.sin_family = AF_INET;
  result.sin_port = htons((unsigned short)atoi(port));
  if (inet_pton(AF_INET, address, &result.sin_addr) != 1) {
    fprintf(stderr, "relay: %s is no IPv4 address\n", address);
    exit(2);
  }
  return result;
}

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: relay LISTEN_ADDRESS LISTEN_PORT TO_ADDRESS TO_PORT BYTES_OUT\n");
    return 2;
  }
  const struct sockaddr_in from = endpoint(argv[1], argv[2]);
  const struct sockaddr_in to = endpoint(argv[3], argv[4]);
  const size_t bytes_out = (size_t)atoi(argv[5]);
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  if (s < 0 || bind(s, (const struct sockaddr*)&from, sizeof from) != 0) {
    perror("relay");
    return 1;
  }
  static char buffer[65536];
  for (;;) {
    if (recv(s, buffer, sizeof buffer, 0) < 0) continue;
    (void)sendto(s, buffer, bytes_out, 0, (const struct sockaddr*)&to, sizeof to);
  }
}
