// SPDX-License-Identifier: MIT
// e1212fastserver: a Modbus TCP server with the E1212's register map sizes, built on libmodbus,
// for benchmarks that must not measure the server. One thread, every client served through
// select(); requests are answered from one shared mapping (zeros, the model name "E1212").
//
//   e1212fastserver [PORT]     PORT 0 (the default) picks a free one
//
// Listens on 127.0.0.1 and prints "listening on 127.0.0.1:PORT" once it accepts connections.
#include <modbus/modbus.h>

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    char *end = NULL;
    const long port = argc > 1 ? strtol(argv[1], &end, 10) : 0;
    if (argc > 2 || (argc > 1 && (*end != '\0' || port < 0 || port > 65535))) {
        fprintf(stderr, "usage: e1212fastserver [PORT]\n");
        return 2;
    }

    // Coils 0-23 (outputs, pulse status), discrete inputs 0-7, holding registers 256-519
    // (pulse on- and off-widths), input registers 5000-5032 (model, MAC address, firmware).
    modbus_mapping_t *map = modbus_mapping_new_start_address(0, 24, 0, 8, 256, 264, 5000, 33);
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", (int)port);
    if (!map || !ctx) {
        fprintf(stderr, "e1212fastserver: %s\n", modbus_strerror(errno));
        return 1;
    }
    const char model[] = "E1212";
    for (size_t i = 0; i < sizeof model - 1; ++i)
        map->tab_input_registers[i / 2] |= (uint16_t)((uint8_t)model[i] << (i % 2 ? 0 : 8));

    const int listener = modbus_tcp_listen(ctx, 64);
    struct sockaddr_in address;
    socklen_t size = sizeof address;
    if (listener < 0 || getsockname(listener, (struct sockaddr *)&address, &size) != 0) {
        fprintf(stderr, "e1212fastserver: cannot listen on 127.0.0.1:%ld: %s\n", port, strerror(errno));
        return 1;
    }
    printf("listening on 127.0.0.1:%u\n", ntohs(address.sin_port));
    fflush(stdout);

    fd_set clients;
    FD_ZERO(&clients);
    FD_SET(listener, &clients);
    int highest = listener;
    uint8_t request[MODBUS_TCP_MAX_ADU_LENGTH];
    for (;;) {
        fd_set ready = clients;
        if (select(highest + 1, &ready, NULL, NULL, NULL) < 0) {
            if (errno == EINTR)
                continue;
            perror("e1212fastserver: select");
            return 1;
        }
        for (int fd = 0; fd <= highest; ++fd) {
            if (!FD_ISSET(fd, &ready))
                continue;
            if (fd == listener) {
                const int client = accept(listener, NULL, NULL);
                if (client >= 0 && client < FD_SETSIZE) {
                    FD_SET(client, &clients);
                    if (client > highest)
                        highest = client;
                } else if (client >= 0) {
                    close(client); // past what select() can watch
                }
                continue;
            }
            modbus_set_socket(ctx, fd);
            const int length = modbus_receive(ctx, request);
            if (length > 0) {
                modbus_reply(ctx, request, length, map);
            } else if (length < 0) {
                // Closed by the client, or a frame libmodbus cannot take: that connection ends.
                close(fd);
                FD_CLR(fd, &clients);
                while (highest > listener && !FD_ISSET(highest, &clients))
                    --highest;
            }
        }
    }
}
