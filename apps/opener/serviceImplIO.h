/*
 * The one-byte protocol of the service hand-over, shared by the opener and the services daemon.
 *
 * One connection carries: a greeting byte from the daemon, one byte from the opener with one
 * descriptor attached (SCM_RIGHTS), and a verdict byte from the daemon ("1" accepted).
 */
#ifndef BRIX_SERVICE_IMPL_IO_H
#define BRIX_SERVICE_IMPL_IO_H

/*
 * The byte sent with every descriptor; it holds the last greeting byte read from the daemon
 * (on the daemon side, the last byte received with a descriptor).
 */
extern char gServiceImplMessageByte;

/* Results of ServiceImplReadOne. */
enum { SERVICE_READ_ERROR = 0, SERVICE_READ_EOF = 1, SERVICE_READ_BYTE = 2 };

/* Writes one byte; false without a message when the peer is gone. */
bool ServiceImplWriteOne(int fd, char byte);

/* Reads one byte into *buffer: SERVICE_READ_BYTE, SERVICE_READ_EOF or SERVICE_READ_ERROR. */
int ServiceImplReadOne(int fd, char *buffer);

/* Sends fd with the message byte; false without a message when the peer is gone. */
bool ServiceImplSendFd(int sock, int fd);

/*
 * Receives one descriptor (close-on-exec) and the message byte. False silently at end of file;
 * any message other than exactly one descriptor is refused, and whatever it carried is closed.
 */
bool ServiceImplRecvFd(int sock, int *fdOut);

/* Clears (blocking) or sets (non-blocking) O_NONBLOCK. */
bool ServiceImplSetBlockingState(int fd, bool blocking);

/*
 * Closes *fdSlot unless it is -1 and sets it to -1. A failed close is reported, clears *okFlag
 * when given, and gives false.
 */
bool ServiceImplClose(int *fdSlot, bool *okFlag);

#endif
