/* KVRS232: the serial-port library. Nine functions open, set up, move bytes
 * through and close a serial (RS-232) port; every one returns a status, 0 for
 * success and a negative KVRS232_ERR_* value otherwise (KvRS232StatusText
 * names each). A port is a number: KVCORE_SERIAL maps numbers to devices
 * ("1=/dev/ttyUSB0;2=/dev/pts/7", on Windows "1=\\.\COM7"), and port N
 * without an entry is /dev/ttyS<N-1> (on Windows the COM port \\.\COM<N>).
 *
 *   void* port = NULL;
 *   size_t got = 0;
 *   char reply[64];
 *   KvRS232CommOpen(&port, 1);
 *   KvRS232CommInit(port, 9600, 8, KVRS232_NOPARITY, KVRS232_ONESTOPBIT);
 *   KvRS232CommSetReadTimeout(port, 0, 0, 500);       // at most 500 ms a read
 *   KvRS232CommIo(port, KVRS232_IO_WRITE, "*IDN?\r", 6, &got);
 *   KvRS232CommIo(port, KVRS232_IO_READ, reply, sizeof reply, &got);
 *   KvRS232CommClose(&port);
 *
 * One handle may be used by a reading and a writing thread at the same time.
 * A port is opened exclusively: a second open, by this or another program,
 * fails with KVRS232_ERR_BUSY until the first is closed. */
#ifndef KVRS232_H
#define KVRS232_H

#include <stddef.h>

#if defined(_WIN32)
#if defined(KVRS232_EXPORTS)
#define KVRS232_API __declspec(dllexport)
#else
#define KVRS232_API __declspec(dllimport)
#endif
#else
#define KVRS232_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses. */
enum {
  KVRS232_OK = 0,
  KVRS232_ERR_HANDLE = -1,        /* null, closed or unknown handle */
  KVRS232_ERR_ARGUMENT = -2,      /* a null pointer or a value out of range */
  KVRS232_ERR_PORT = -3,          /* port number below 1 */
  KVRS232_ERR_NO_DEVICE = -4,     /* the port's device does not exist */
  KVRS232_ERR_BUSY = -5,          /* the port is open elsewhere */
  KVRS232_ERR_ACCESS = -6,        /* no permission to open the device */
  KVRS232_ERR_NOT_SERIAL = -7,    /* the device is not a serial line */
  KVRS232_ERR_OPEN = -8,          /* the device cannot be opened for another reason */
  KVRS232_ERR_BAUD = -9,          /* unsupported baud rate */
  KVRS232_ERR_DATA_BITS = -10,    /* data bits other than 5 to 8 */
  KVRS232_ERR_PARITY = -11,       /* unknown parity */
  KVRS232_ERR_STOP_BITS = -12,    /* unknown stop bits, or 1.5 without 5 data bits */
  KVRS232_ERR_NOT_SUPPORTED = -13, /* the device has no such line (a pseudo-terminal has no modem lines) */
  KVRS232_ERR_HANGUP = -14,       /* the line was hung up: device removed or the far end closed */
  KVRS232_ERR_CLOSED = -15,       /* the handle was closed while the call waited */
  KVRS232_ERR_IO = -16,           /* the device reported an input/output error */
  KVRS232_ERR_RESOURCES = -17,    /* out of memory or descriptors */
  /* Not produced by the library itself: what a host's loader answers on
   * every call when the library cannot be loaded. */
  KVRS232_ERR_MODULE = -100
};

/* KvRS232CommInit: parity and stop bits, with the values of the Windows
 * serial API. Data bits are 5 to 8; 1.5 stop bits only with 5 data bits. */
enum {
  KVRS232_NOPARITY = 0,
  KVRS232_ODDPARITY = 1,
  KVRS232_EVENPARITY = 2,
  KVRS232_MARKPARITY = 3,
  KVRS232_SPACEPARITY = 4
};
enum { KVRS232_ONESTOPBIT = 0, KVRS232_ONE5STOPBITS = 1, KVRS232_TWOSTOPBITS = 2 };

/* KvRS232CommIo: the operation selector. */
enum { KVRS232_IO_READ = 0, KVRS232_IO_WRITE = 1 };

/* KvRS232CommSetOutLine: the output lines; state 1 raises (or starts the
 * break), 0 lowers (or ends it). */
enum { KVRS232_LINE_DTR = 1, KVRS232_LINE_RTS = 2, KVRS232_LINE_BREAK = 3 };

/* KvRS232CommGetModemStatus: the bits of the modem-status word. */
enum { KVRS232_MS_CTS_ON = 0x10, KVRS232_MS_DSR_ON = 0x20, KVRS232_MS_RING_ON = 0x40, KVRS232_MS_RLSD_ON = 0x80 };

/* The largest time-out value, as an int (-1). As the read interval it means
 * "return at once" (see KvRS232CommSetReadTimeout). */
#define KVRS232_MAXDWORD (-1)

/* Opens port (1 and above) and puts its device into raw mode: bytes pass
 * unchanged, 8 data bits, no parity, no flow control, the speed kept until
 * KvRS232CommInit. *handle receives the new handle (null on failure). */
KVRS232_API int KvRS232CommOpen(void** handle, int port);

/* Line settings: baud rate (a standard rate from 50 to 4000000), data bits,
 * parity and stop bits as above. No flow control; nothing waiting is discarded. */
KVRS232_API int KvRS232CommInit(void* handle, int baud, int dataBits, int parity, int stopBits);

/* Reads (KVRS232_IO_READ) up to length bytes into buffer, or writes
 * (KVRS232_IO_WRITE) length bytes from it; *transferred receives the count
 * moved. A time-out is not an error: the call returns KVRS232_OK with fewer
 * bytes than asked. A read without any time-out waits for all length bytes. */
KVRS232_API int KvRS232CommIo(void* handle, int operation, void* buffer, size_t length, size_t* transferred);

/* Sets an output line (KVRS232_LINE_*) to state 0 or 1. */
KVRS232_API int KvRS232CommSetOutLine(void* handle, int line, int state);

/* The modem-status word: KVRS232_MS_* bits of the lines that are on. */
KVRS232_API int KvRS232CommGetModemStatus(void* handle, int* status);

/* Read time-outs in milliseconds, with the Windows meanings (0 = not used):
 *   interval    the longest gap between two bytes, counted from the first byte;
 *   multiplier  times the count asked, plus
 *   constant    the total time a read may take.
 * KVRS232_MAXDWORD as interval with multiplier and constant 0: return at once
 * with what has arrived, possibly nothing. KVRS232_MAXDWORD as interval and
 * multiplier with a constant above 0: return as soon as any byte is there,
 * waiting at most constant ms for the first. All 0: wait for every byte.
 * Values below 0 other than KVRS232_MAXDWORD are refused. */
KVRS232_API int KvRS232CommSetReadTimeout(void* handle, int interval, int multiplier, int constant);

/* Write time-out in milliseconds: multiplier times the count plus constant;
 * both 0: a write waits until every byte is taken. */
KVRS232_API int KvRS232CommSetWriteTimeout(void* handle, int multiplier, int constant);

/* Discards what is waiting in both directions: received and unread, and
 * written but not yet sent. */
KVRS232_API int KvRS232CommFlush(void* handle);

/* Closes the port and sets *handle to null. A read or write waiting on the
 * handle in another thread ends with KVRS232_ERR_CLOSED. */
KVRS232_API int KvRS232CommClose(void** handle);

/* The text of a status ("success", "the port is open elsewhere", ...);
 * "unknown status" for a value the library does not define. */
KVRS232_API const char* KvRS232StatusText(int status);

/* The port table. KvRS232PortDevice copies the device a port opens (size
 * includes the terminating zero; a device that does not fit is
 * KVRS232_ERR_ARGUMENT). KvRS232PortList stores up to capacity port numbers,
 * ascending: each port that KVCORE_SERIAL or a null-modem cable maps, and each
 * unmapped port whose default device exists; it returns their count. */
KVRS232_API int KvRS232PortDevice(int port, char* device, size_t size);
KVRS232_API int KvRS232PortList(int* ports, int capacity);

/* A virtual null-modem cable, for hosts and tests without hardware: two
 * pseudo-terminals whose bytes cross over, what is written to one end is read
 * at the other (on Windows, which has no pseudo-terminals, two ends inside the
 * library, "nullmodem:" devices that only this process can open, with the same
 * time-outs; closing the cable hangs up ports still open on it). Ports portA
 * and portB name the two ends in this process (ahead of KVCORE_SERIAL) until
 * KvRS232NullModemClose, which releases them and sets *cable to null. Close
 * the ports before the cable. */
KVRS232_API int KvRS232NullModemOpen(void** cable, int portA, int portB);
KVRS232_API int KvRS232NullModemClose(void** cable);

#ifdef __cplusplus
}
#endif

#endif /* KVRS232_H */
