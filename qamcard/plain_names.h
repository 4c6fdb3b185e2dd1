// Services whose plain names a C library or another library may have too, with other types. A chassis's
// sources that include headers of such a library do not include this one. Tasks only.
#pragma once

#include "qamcard/types.h"

QAM_BEGIN(firmware)

// -1, 0 or 1: the order of two names of SNMP objects.
int compare(const u32* name1, int length1, const u32* name2, int length2);

// Parse the value at `data` within `*datalength` bytes, and set `*datalength` to the bytes left. Return the
// byte after the value, or null if it is invalid or too large: a text of at most `*strlength` bytes, which is
// set to its length; or a number of `numberSize` bytes.
u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength);
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize);

// UDP sockets, domain 2 (Internet) and type 2 (datagrams). An address has 16 bytes: its length, the family,
// port and IPv4 address in network order, 8 unused. socket() returns a number, or -1; recvfrom() blocks until
// a datagram arrives and returns its bytes, cut to `length`, or -1.
int socket(int domain, int type, int protocol);
int bind(int s, void* name, int length);
int recvfrom(int s, char* buffer, int length, int flags, void* from, int* fromLength);
int sendto(int s, char* buffer, int length, int flags, void* to, int toLength);
int close(int s);  // NOLINT: a C library has it too

// A failed check of an argument: its text, the unit's name and the line. It must return.
void __assert_fail(const char* text, const char* unit, unsigned line, const char* function);

QAM_END
