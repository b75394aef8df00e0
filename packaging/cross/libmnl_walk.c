/* The libmnl calls hostrix makes, for the cross test runs on targets Debian ships
 * no libmnl for (mips): message and attribute walking, building requests, and the
 * attribute checks. Semantics as libmnl documents them; the boxes themselves use
 * their own libmnl. The rest of libmnl's symbols are link stubs (stub-libs.sh). */
#include <errno.h>
#include <libmnl/libmnl.h>
#include <string.h>

bool mnl_nlmsg_ok(const struct nlmsghdr *nlh, int len) {
    return len >= (int)sizeof(struct nlmsghdr) && nlh->nlmsg_len >= sizeof(struct nlmsghdr) &&
           (int)nlh->nlmsg_len <= len;
}

struct nlmsghdr *mnl_nlmsg_next(const struct nlmsghdr *nlh, int *len) {
    *len -= MNL_ALIGN(nlh->nlmsg_len);
    return (struct nlmsghdr *)((char *)nlh + MNL_ALIGN(nlh->nlmsg_len));
}

void *mnl_nlmsg_get_payload(const struct nlmsghdr *nlh) { return (char *)nlh + MNL_NLMSG_HDRLEN; }

size_t mnl_nlmsg_get_payload_len(const struct nlmsghdr *nlh) {
    return nlh->nlmsg_len - MNL_NLMSG_HDRLEN;
}

void *mnl_nlmsg_get_payload_offset(const struct nlmsghdr *nlh, size_t offset) {
    return (char *)nlh + MNL_NLMSG_HDRLEN + MNL_ALIGN(offset);
}

void *mnl_nlmsg_get_payload_tail(const struct nlmsghdr *nlh) {
    return (char *)nlh + MNL_ALIGN(nlh->nlmsg_len);
}

struct nlmsghdr *mnl_nlmsg_put_header(void *buf) {
    int len = MNL_ALIGN(sizeof(struct nlmsghdr));
    struct nlmsghdr *nlh = buf;
    memset(buf, 0, len);
    nlh->nlmsg_len = len;
    return nlh;
}

void *mnl_nlmsg_put_extra_header(struct nlmsghdr *nlh, size_t size) {
    char *ptr = (char *)nlh + nlh->nlmsg_len;
    size_t len = MNL_ALIGN(size);
    nlh->nlmsg_len += len;
    memset(ptr, 0, len);
    return ptr;
}

uint16_t mnl_attr_get_type(const struct nlattr *attr) { return attr->nla_type & NLA_TYPE_MASK; }
uint16_t mnl_attr_get_len(const struct nlattr *attr) { return attr->nla_len; }
uint16_t mnl_attr_get_payload_len(const struct nlattr *attr) { return attr->nla_len - MNL_ATTR_HDRLEN; }
void *mnl_attr_get_payload(const struct nlattr *attr) { return (char *)attr + MNL_ATTR_HDRLEN; }
const char *mnl_attr_get_str(const struct nlattr *attr) { return mnl_attr_get_payload(attr); }

bool mnl_attr_ok(const struct nlattr *attr, int len) {
    return len >= (int)sizeof(struct nlattr) && attr->nla_len >= sizeof(struct nlattr) &&
           (int)attr->nla_len <= len;
}

struct nlattr *mnl_attr_next(const struct nlattr *attr) {
    return (struct nlattr *)((char *)attr + MNL_ALIGN(attr->nla_len));
}

bool mnl_attr_put_check(struct nlmsghdr *nlh, size_t buflen, uint16_t type, size_t len, const void *data) {
    size_t payload = MNL_ATTR_HDRLEN + len;
    if (nlh->nlmsg_len + MNL_ALIGN(payload) > buflen) return false;
    struct nlattr *attr = (struct nlattr *)((char *)nlh + nlh->nlmsg_len);
    attr->nla_type = type;
    attr->nla_len = payload;
    memcpy(mnl_attr_get_payload(attr), data, len);
    memset((char *)attr + payload, 0, MNL_ALIGN(payload) - payload);
    nlh->nlmsg_len += MNL_ALIGN(payload);
    return true;
}

/* The fixed sizes libmnl checks for each type; 0: any length (strings are checked apart). */
static const size_t type_len[MNL_TYPE_MAX] = {
    [MNL_TYPE_U8] = sizeof(uint8_t),   [MNL_TYPE_U16] = sizeof(uint16_t),
    [MNL_TYPE_U32] = sizeof(uint32_t), [MNL_TYPE_U64] = sizeof(uint64_t),
    [MNL_TYPE_MSECS] = sizeof(uint64_t), [MNL_TYPE_FLAG] = 0,
};

int mnl_attr_validate(const struct nlattr *attr, enum mnl_attr_data_type type) {
    uint16_t len = mnl_attr_get_payload_len(attr);
    if (type >= MNL_TYPE_MAX) return errno = EINVAL, -1;
    switch (type) {
        case MNL_TYPE_FLAG: return len > 0 ? (errno = ERANGE, -1) : 0;
        case MNL_TYPE_NUL_STRING:
            if (len == 0 || ((const char *)mnl_attr_get_payload(attr))[len - 1] != '\0')
                return errno = EINVAL, -1;
            return 0;
        case MNL_TYPE_STRING: return len == 0 ? (errno = ERANGE, -1) : 0;
        case MNL_TYPE_NESTED:
            if (len == 0) return 0;
            return len < MNL_ATTR_HDRLEN ? (errno = ERANGE, -1) : 0;
        default: break;
    }
    if (type_len[type] && len < type_len[type]) return errno = ERANGE, -1;
    return 0;
}
