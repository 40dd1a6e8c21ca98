/* Build switches of libuci. The stand-in has none: debug builds and
 * type-checked casts are not offered. */
/* #define UCI_DEBUG */
/* #define UCI_DEBUG_TYPECAST */
