/*
 * libzar: status codes.
 *
 * Conventions of the whole C API:
 * - A status code is an unsigned 32-bit number: technology in bits 31..28
 *   (1 "dce", 2 "dfs", 3 "kp", 4 and 5 vendor), component in bits 27..12
 *   (three letters in base 40), message number in bits 11..0. 0 is success.
 * - Functions that report a status write it through their last argument,
 *   normally a pointer to unsigned long whose low 32 bits receive the code
 *   (the rest is 0). Each family header says which type its functions use.
 * - The text of any code is available with zar_error_inq_text (zar/msg.h).
 *
 * The macros below name every status code that the library itself returns.
 */
#ifndef ZAR_STATUS_H
#define ZAR_STATUS_H

#define ZAR_S_OK 0x00000000U

/* Technology 1 ("dce"), component "bas": message, catalog and serviceability. */
#define ZAR_S_SVC_NO_MEMORY 0x106521F4U        /* serviceability: allocation failed */
#define ZAR_S_SVC_BAD_ROUTE 0x106521F7U        /* bad route or level setting; no such route type */
#define ZAR_S_SVC_ROUTE_OPEN_FAILED 0x106521F8U /* dynamic route open failed or type removed */
#define ZAR_S_SVC_NO_SUCH_CALLBACKS 0x106521F9U /* callback set to remove is not registered */
#define ZAR_S_MSG_BAD_OPEN_TYPE 0x106521FAU    /* unsupported catalog open type; assertion text */
#define ZAR_S_MSG_NO_MEMORY 0x10652203U        /* message texts: allocation failed */
#define ZAR_S_MSG_NOT_IN_TABLES 0x10652204U    /* code is in no compiled message table */
#define ZAR_S_MSG_NOT_IN_CATALOG 0x10652205U   /* no catalog text, or catalogs switched off */
#define ZAR_S_MSG_CAT_OPEN_FAILED 0x10652206U  /* catalog or code set could not be opened */
#define ZAR_S_MSG_CAT_NO_PERMISSION 0x10652207U /* catalog open: permission denied */
#define ZAR_S_MSG_CAT_NOT_FOUND 0x10652208U    /* no such catalog, or unknown locale */
#define ZAR_S_MSG_SUCCESS_TEXT 0x10652209U     /* looked up in place of status 0 */
#define ZAR_S_SVC_BAD_MSGSAVE_ARGS 0x1065220AU /* bad message-save arguments */

/* Technology 1, component "ivc": dynamic-route registry lock. */
#define ZAR_S_SVC_DYN_ROUTE_LOCK 0x1354A1C8U

/* Technology 1, component "rpc" and "lib": UUIDs. */
#define ZAR_S_UUID_BAD_VARIANT 0x16C9A088U
#define ZAR_S_UUID_NO_ADDRESS 0x16C9A08BU
#define ZAR_S_UUID_BAD_TEXT 0x16C9A08FU
#define ZAR_S_UUID_NO_MEMORY 0x16C9A090U
#define ZAR_S_UUID_ADDR_FILE_MISSING 0x1460101EU
#define ZAR_S_UUID_ADDR_FILE_BAD 0x1460101FU

/* Technology 3 ("kp"), component "wsc": the library's own client messages. */
#define ZAR_S_SSL_FAILURE 0x38C52096U          /* XKJSC0150E */
#define ZAR_S_NO_MEMORY 0x38C52097U            /* XKJSC0151E */
#define ZAR_S_NO_MORE_ENTRIES 0x38C52098U      /* XKJSC0152E */
#define ZAR_S_NOT_AVAILABLE 0x38C52099U        /* XKJSC0153E */
#define ZAR_S_ACCESS_DENIED 0x38C5209AU        /* XKJSC0154E */
#define ZAR_S_INVALID_INPUT 0x38C5209BU        /* XKJSC0155E */
#define ZAR_S_SYSCALL_FAILED_CODE 0x38C5209CU  /* XKJSC0156E */
#define ZAR_S_SYSCALL_FAILED 0x38C5209DU       /* XKJSC0157E */
#define ZAR_S_CFG_DATA_MISSING 0x38C5209EU     /* XKJSC0158E */
#define ZAR_S_CFG_PARAM_REQUIRED 0x38C5209FU   /* XKJSC0159E */
#define ZAR_S_CFG_DATA_INVALID 0x38C520A0U     /* XKJSC0160E */
#define ZAR_S_STZ_LOCK_FAILED 0x38C520A1U      /* XKJSC0161E */
#define ZAR_S_FILE_OPEN_FAILED 0x38C520A2U     /* XKJSC0162E */
#define ZAR_S_MBS_TO_WCS_FAILED 0x38C520A3U    /* XKJSC0163E */
#define ZAR_S_STZ_NO_BRACKET 0x38C520A4U       /* XKJSC0164E */
#define ZAR_S_WCS_TO_MBS_FAILED 0x38C520A5U    /* XKJSC0165E */
#define ZAR_S_STZ_NO_SEPARATOR 0x38C520A6U     /* XKJSC0166E */
#define ZAR_S_STZ_BAD_ARGUMENT 0x38C520A7U     /* XKJSC0167E */
#define ZAR_S_STZ_OPEN_FAILED 0x38C520A8U      /* XKJSC0168E */
#define ZAR_S_STZ_WOULD_BLOCK 0x38C520A9U      /* XKJSC0169E */
#define ZAR_S_STZ_NOT_OPEN 0x38C520AAU         /* XKJSC0170E */
#define ZAR_S_STZ_BAD_FORMAT 0x38C520ABU       /* XKJSC0171E */
#define ZAR_S_STZ_INTERNAL 0x38C520ACU         /* XKJSC0172E */
#define ZAR_S_STZ_UPDATE_FAILED 0x38C520ADU    /* XKJSC0173E */
#define ZAR_S_STZ_READ_ONLY 0x38C520AEU        /* XKJSC0174E */
#define ZAR_S_STZ_READ_FAILED 0x38C520AFU      /* XKJSC0175E */
#define ZAR_S_BAD_NUMBER 0x38C520B0U           /* XKJSC0176E */
#define ZAR_S_NUMBER_TOO_LARGE 0x38C520B1U     /* XKJSC0177E */
#define ZAR_S_KRY_FAILURE 0x38C520B2U          /* XKJSC0178E */
#define ZAR_S_KRY_FAILURE_DETAIL 0x38C520B3U   /* XKJSC0179E */
#define ZAR_S_KRY_FAILURE_NO_DETAIL 0x38C520B4U /* XKJSC0180E */
#define ZAR_S_TRACE_LEVEL_TEXT 0x38C5213AU     /* "Trace Level: %d" */

/* Technology 3, component "wsd": deploy messages the library returns. */
#define ZAR_S_CMDLINE_BAD_OPTION 0x38C53137U   /* XKJSD0311E */
#define ZAR_S_FILE_TAIL_OPEN 0x38C53138U       /* XKJSD0312E */

#endif /* ZAR_STATUS_H */
