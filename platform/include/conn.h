/* The device connection library: which network interface is active, and the
 * proxy that interface requires. */
#ifndef NYX_PLATFORM_CONN_H
#define NYX_PLATFORM_CONN_H

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of active interface. Only CON_INTERFACE_PROXIED routes traffic
 * through the network proxy. */
enum { CON_INTERFACE_DIRECT = 1, CON_INTERFACE_PROXIED = 2 };

/* A proxy record. Each member is malloc'ed or NULL; the record itself is
 * malloc'ed. The caller frees the three members and then the record. */
typedef struct ConProxyData {
  char* host;
  char* port;
  char* reserved;
} ConProxyData;

int ConActiveInterface(void);

/* The proxy of the active network, or NULL when there is none. */
ConProxyData* ConGetNetworkProxy(void);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_CONN_H */
