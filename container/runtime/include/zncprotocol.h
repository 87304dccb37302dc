/*
 * zncprotocol.h - the messages between clients and the daemon, and the builders of JSON documents.
 *
 * For programs that communicate with the daemon directly or build the same documents; ordinary
 * clients need only zncontainer.h, whose conventions apply here, too. JSON trees are those of
 * cJSON.
 */
#ifndef ZNCPROTOCOL_H
#define ZNCPROTOCOL_H

#include "zncontainer.h"

#ifdef __GNUC__
#define ZNC_PRINTF_LIKE(format_, first_) __attribute__((format(printf, format_, first_)))
#else
#define ZNC_PRINTF_LIKE(format_, first_)
#endif

ZNC_BEGIN_DECLS

/* ------------------------------------------------------------------ messages */

/* Command ids of requests; a reply has the command id of its request. */
typedef enum zncCmdType {
    ZNC_CREATE = 0,      /* "containerId", "bundle", "option" */
    ZNC_START = 1,       /* "containerId", "option"; reply: one start-parameter object */
    ZNC_KILL = 2,        /* "containerId", "signo", "option" */
    ZNC_DELETE = 3,      /* "containerId", "option" */
    ZNC_STATE = 4,       /* "containerId"; reply: one state object */
    ZNC_LIST = 5,        /* nothing; reply: a state object per container */
    ZNC_UNPACK = 6,      /* never sent */
    ZNC_INSPECT = 7,     /* "Id"; reply: one inspection document */
    ZNC_STORE_STATE = 8, /* "containerId", "handle" */
    ZNC_ALIVE = 9        /* nothing */
} zncCmdType;

#define ZNC_PROTOCOL_VERSION 1 /* of requests and replies */
#define ZNC_MSG_Q_NAME "/znc"
#define ZNC_MSG_NAME_LEN 192
#define ZNC_MSG_HEADER_LEN 204
#define ZNC_MSG_MAX_LEN 2048 /* size of one queue message and of each request */
#define ZNC_MSG_DATA_LIMIT (ZNC_MSG_MAX_LEN - ZNC_MSG_HEADER_LEN) /* a request has less data */

/*
 * A message, in host byte order. `data` is unformatted JSON; its NUL is not sent. The structure is
 * one queue message; a longer reply continues in further messages, which consist of data only.
 *
 * The daemon silently drops a request whose `dataLen` exceeds the data received or the limit of a
 * request, or whose `name` is not of the form used by zncCall, "/znc-u-<digits>-<digits>".
 */
typedef struct zncMessage {
    char name[ZNC_MSG_NAME_LEN]; /* the client's reply queue, ended by NUL */
    uint8_t msgLvl;              /* requested verbosity; only in requests */
    uint8_t rsvd1;
    uint8_t rsvd2;
    uint8_t rsvd3;
    int32_t cmdId;    /* zncCmdType */
    uint32_t dataLen; /* bytes of `data` */
    char data[ZNC_MSG_DATA_LIMIT];
} zncMessage;

/* ------------------------------------------------------------------ parameters */

typedef enum paramType { INTEGER = 0, STRING = 1, STRING_ARRAY = 2, OBJECT = 3 } paramType;

typedef int64_t zncData; /* the integer itself, or a pointer */

typedef struct zncParam {
    paramType type;
    char* name;     /* JSON key */
    zncData value;  /* by type: the number, char*, char**, cJSON* */
    int32_t number; /* elements of a STRING_ARRAY, else 0 */
} zncParam;

typedef struct cJSON ZNC_PARAM_DATA; /* an object with the parameters as members */

/*
 * A new object from a table; the caller deletes it (cJSON_Delete). Empty STRING_ARRAYs and NULL
 * STRINGs are omitted; OBJECTs are referenced, not owned. NULL with ENOMEM or EINVAL.
 */
ZNC_NODISCARD ZNC_PARAM_DATA* zncParamObjInit(zncParam* param, int count);

/*
 * Fill a table from an object. Keys are compared case-insensitively; entries whose key is missing
 * keep their value. Strings point into the tree; the vectors of STRING_ARRAYs are freed by
 * zncParamObjDestroy. ERROR with EINVAL (NULL, no entries) or ENOMEM, or without errno if a value
 * that must be a string is not; string arrays in the table have then been freed and must not be
 * used.
 */
STATUS zncParamObjGet(ZNC_PARAM_DATA* pData, zncParam* param, unsigned int count);

/* Free the vectors that zncParamObjGet made. EINVAL for NULL or no entries. */
STATUS zncParamObjDestroy(zncParam* param, unsigned int count);

/* The value of the first entry whose name begins with `name` (a prefix match, kept for
 * compatibility); 0 if there is none. */
zncData zncParamValueGetByName(zncParam* param, int count, const char* name);

/*
 * A new JSON array of the strings of a NULL-terminated vector; NULL if out of memory. Strings that
 * cannot be copied are omitted.
 */
ZNC_NODISCARD struct cJSON* zncConfigToArray(char** argument);

/* Add a deep copy of a member to another object, or "" if it is missing. If out of memory, add
 * nothing. */
void zncJsonCopy(struct cJSON* srcObj, char* srcName, struct cJSON* dstObj, char* dstName);

/* ------------------------------------------------------------------ calls (client) */

/*
 * Send one request to the daemon queue `msgQHandle` (a name; zncCall: "/znc"), wait for its reply
 * and print the progress texts. The reply's text goes to `ppResp` (may be NULL), freed by the
 * caller. Errors: S_zncLib_DAEMON_NOT_RUNNING, ENOMEM, or 0 if a queue cannot be created or no
 * reply arrives.
 */
STATUS zncCallQ(const char* msgQHandle, int cmdId, zncParam* param, int count, char** ppResp);
STATUS zncCall(int cmdId, zncParam* param, int count, char** ppResp);

/*
 * Get "errno" and "body" of a parsed reply. `body` points into `root`; `errCode` and `body` may be
 * NULL. ERROR if "errno" is not 0. If "errno" is missing, `errCode` is -1; if `root` is NULL, it is
 * EINVAL.
 */
STATUS zncResponseCheck(struct cJSON* root, int* errCode, struct cJSON** body);

/* ------------------------------------------------------------------ replies (daemon task only) */

/*
 * Send a reply to the queue `name`; `body` stays the caller's. ERROR (errno is not always set) if
 * the queue does not exist, `body` is NULL, memory is exhausted, the reply is 64 KiB or longer, or
 * the client does not receive a message within 1 s.
 */
STATUS zncReplyMessage(char* name, int cmdId, struct cJSON* body, int errCode);

/*
 * Send a progress message (a printf format) to the client being served, if the client's verbosity
 * is at least `lvl`. Never waits.
 */
void zncSendMsg(uint32_t lvl, char* info, ...) ZNC_PRINTF_LIKE(2, 3);

/*
 * The client being served: the name of its reply queue, and its verbosity (values above 2 are
 * ignored). Progress messages go to a second queue of the client, whose name is that of the reply
 * queue and "_info".
 */
void zncMsgQnameSet(const char* msgQname);
void zncMsgLvlSet(UINT8 lvl);

/* ------------------------------------------------------------------ documents */

/* Append a container's inspection document to `array`, for request `root`; 0 or an error number. */
int zncInspectContainer(struct cJSON* root, struct cJSON* array);

/* Its parts: new objects, or NULL if out of memory. Members that cannot be allocated are omitted.
 */
ZNC_NODISCARD struct cJSON* zncInspectContainerState(CONTAINER_STATE* pState);
ZNC_NODISCARD struct cJSON* zncInspectHostConfig(runtimeSpecConfig* pConfig);
ZNC_NODISCARD struct cJSON* zncInspectContainerConfig(runtimeSpecConfig* pConfig);

/* Append one object per manifest of a layout; 0, or an error number and `array` is empty. */
int zncImageInspect(const char* ociPath, struct cJSON* array);
STATUS zncInspectImageConfig(struct cJSON* body, struct cJSON* config);
ZNC_NODISCARD struct cJSON* zncInspectImageContainer(struct cJSON* configJson);

/*
 * Write a bundle's "config.json", or add one of its members to `rootJson`, from a parsed image for
 * which a manifest has been selected.
 */
typedef struct zncImageIndex OCI_IMAGE;
STATUS zncCreateOciBundleConfig(OCI_IMAGE* image, const char* configFile, const char* rootfsPath);
STATUS zncCreateOciBundleConfigVersion(OCI_IMAGE* image, struct cJSON* rootJson);
STATUS zncCreateOciBundleConfigProcess(OCI_IMAGE* image, struct cJSON* rootJson);
STATUS zncCreateOciBundleConfigRoot(OCI_IMAGE* image, struct cJSON* rootJson,
                                    const char* rootfsPath);
STATUS zncCreateOciBundleConfigHostname(OCI_IMAGE* image, struct cJSON* rootJson);
STATUS zncCreateOciBundleConfigMounts(OCI_IMAGE* image, struct cJSON* rootJson);
STATUS zncCreateOciBundleConfigAnnotations(OCI_IMAGE* image, struct cJSON* rootJson);
STATUS zncCreateOciBundleConfigZarnel(OCI_IMAGE* image, struct cJSON* rootJson);

/*
 * Parse the user of an image and add "uid" and "gid"; fill a mount object from a volume in the form
 * "source:destination:options:type".
 */
STATUS zncImageGetUsrInfo(struct cJSON* usrJson, const char* usrInfo);
STATUS zncImageGetMountInfo(struct cJSON* mountJson, const char* mountInfo);

ZNC_END_DECLS
#endif
