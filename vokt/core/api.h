/* vokt: export and format attributes, and the result codes shared by all modules. */
#ifndef VOKT_CORE_API_H
#define VOKT_CORE_API_H

#if defined(VOKT_BUILDING) && (defined(__GNUC__) || defined(__clang__))
#define VOKT_API __attribute__((visibility("default")))
#else
#define VOKT_API
#endif

#if defined(__GNUC__) || defined(__clang__)
#define VOKT_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define VOKT_PRINTF(f, a)
#endif

#define VOKT_OK 0
#define VOKT_FAILED (-1)
#define ERROR_OUT_OF_MEMORY (-2)
#define ERROR_COMPLEX_BIT 0x40000000

#endif
