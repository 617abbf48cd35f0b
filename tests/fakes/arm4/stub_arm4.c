/* Run-times with the seven entry points, all of which do nothing and return 0: to time calls, and,
 * with one of them left out, to be rejected. */

#define ENTRY(name)                                                                                \
    int name(void);                                                                                \
    int name(void)                                                                                 \
    {                                                                                              \
        return 0;                                                                                  \
    }

#ifndef LACKS_arm_register_application
ENTRY(arm_register_application)
#endif
#ifndef LACKS_arm_start_application
ENTRY(arm_start_application)
#endif
#ifndef LACKS_arm_start_transaction
ENTRY(arm_start_transaction)
#endif
#ifndef LACKS_arm_stop_transaction
ENTRY(arm_stop_transaction)
#endif
#ifndef LACKS_arm_register_transaction
ENTRY(arm_register_transaction)
#endif
#ifndef LACKS_arm_get_error_message
ENTRY(arm_get_error_message)
#endif
#ifndef LACKS_arm_get_arrival_time
ENTRY(arm_get_arrival_time)
#endif
