/* A short C listener for the daemon's GPI events: binds 127.0.0.1 port 42000 and prints each
 * event's line and status until it has seen the number asked for.
 * Build: cc gpi_monitor.c -I$PREFIX/include    Run: ./gpi_monitor 3 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlmgpiod/gpio_event.h>

int main(int argc, char** argv) {
    struct sockaddr_in address = {0};
    int fd = socket(AF_INET, SOCK_DGRAM, 0), seen = 0, wanted = argc > 1 ? atoi(argv[1]) : 1;
    address.sin_family = AF_INET;
    address.sin_port = htons(LOOP_GPI_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof address) != 0) {
        perror("gpi_monitor: 127.0.0.1:42000");
        return 1;
    }
    while (seen < wanted) {
        uint8_t datagram[GPIO_DATAGRAM_SIZE];
        if (recv(fd, datagram, sizeof datagram, 0) != GPIO_DATAGRAM_SIZE)
            continue;
        Gpio event = gpioDecodeBytes(datagram);
        printf("line %d status %d\n", event.lines, event.status);
        ++seen;
    }
    close(fd);
    return 0;
}
