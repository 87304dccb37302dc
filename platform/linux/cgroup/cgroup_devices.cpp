// cgroup_devices.cpp - see cgroup_devices.hpp. The C library has no function for bpf(2), and a
// library for it would be larger than what is needed here.
#include "cgroup_devices.hpp"

#include "cgroup_limits.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kField[] = "devices";
constexpr char kProgramName[] = "zn_devices"; // identifies the programs attached by this code
constexpr std::uint32_t kProgramsMax = 64;    // the kernel's limit for a group

// ---------------------------------------------------------------- rules

unsigned access_bits(const DeviceRule& rule)
{
    return (rule.make ? unsigned{BPF_DEVCG_ACC_MKNOD} : 0) |
           (rule.read ? unsigned{BPF_DEVCG_ACC_READ} : 0) |
           (rule.write ? unsigned{BPF_DEVCG_ACC_WRITE} : 0);
}

void set_access(DeviceRule& rule, unsigned bits)
{
    rule.make = (bits & BPF_DEVCG_ACC_MKNOD) != 0;
    rule.read = (bits & BPF_DEVCG_ACC_READ) != 0;
    rule.write = (bits & BPF_DEVCG_ACC_WRITE) != 0;
}

constexpr unsigned kAllAccess = BPF_DEVCG_ACC_MKNOD | BPF_DEVCG_ACC_READ | BPF_DEVCG_ACC_WRITE;

bool number_covers(std::int64_t wide, std::int64_t narrow)
{
    return wide == kAnyDevice || wide == narrow;
}

bool number_meets(std::int64_t one, std::int64_t other)
{
    return one == kAnyDevice || other == kAnyDevice || one == other;
}

// Whether all devices of `narrow` are among those of `wide`.
bool covers(const DeviceRule& wide, const DeviceRule& narrow)
{
    return wide.type == narrow.type && number_covers(wide.major, narrow.major) &&
           number_covers(wide.minor, narrow.minor);
}

bool meets(const DeviceRule& one, const DeviceRule& other)
{
    return one.type == other.type && number_meets(one.major, other.major) &&
           number_meets(one.minor, other.minor);
}

bool is_everything(const DeviceRule& rule)
{
    return rule.type == 'a' && rule.major == kAnyDevice && rule.minor == kAnyDevice &&
           access_bits(rule) == kAllAccess;
}

// ---------------------------------------------------------------- v1

// Applies a rule for devices of one type.
int add_rule(DeviceList& list, DeviceRule rule)
{
    if (rule.allow != list.allowAll)
        return list.exceptions.append(rule) != nullptr ? 0 : ENOMEM;
    for (DeviceRule& exception : list.exceptions) {
        if (!meets(rule, exception) || (access_bits(rule) & access_bits(exception)) == 0)
            continue;
        if (!covers(rule, exception))
            return ENOTSUP;
        set_access(exception, access_bits(exception) & ~access_bits(rule));
    }
    return 0;
}

// The v1 controller allows an access of several kinds, such as O_RDWR, only if one exception
// permits all of them. So each exception is extended by what wider exceptions permit for its
// devices.
void join_exceptions(DeviceList& list)
{
    for (DeviceRule& exception : list.exceptions)
        for (const DeviceRule& wide : list.exceptions)
            if (covers(wide, exception) && access_bits(exception) != 0)
                set_access(exception, access_bits(exception) | access_bits(wide));
}

// "c 1:3 rwm"
int write_exception(int file, const DeviceRule& rule)
{
    char major[24] = "*";
    char minor[24] = "*";
    char text[64];
    if (rule.major != kAnyDevice)
        std::snprintf(major, sizeof major, "%" PRId64, rule.major);
    if (rule.minor != kAnyDevice)
        std::snprintf(minor, sizeof minor, "%" PRId64, rule.minor);
    std::snprintf(text, sizeof text, "%c %s:%s %s%s%s", rule.type, major, minor,
                  rule.read ? "r" : "", rule.write ? "w" : "", rule.make ? "m" : "");
    return control_put(file, text);
}

int apply_v1(const LimitGroup& group, const List<DeviceRule>& rules)
{
    constexpr LimitFile kAllow = {"devices.allow", nullptr};
    constexpr LimitFile kDeny = {"devices.deny", nullptr};
    DeviceList list;
    int error = device_list(rules.all(), list);
    if (error == 0)
        error = group.write(list.allowAll ? kAllow : kDeny, "a");
    if (error != 0 || list.exceptions.empty())
        return error;
    const UniqueFd file = control_open(group.get(), (list.allowAll ? kDeny : kAllow).v1, O_WRONLY);
    if (!file)
        return errno == ENOENT ? ENOTSUP : errno;
    for (const DeviceRule& rule : list.exceptions)
        if (error == 0 && access_bits(rule) != 0)
            error = write_exception(file.get(), rule);
    return error;
}

// ---------------------------------------------------------------- the code for v2

// Registers. The accesses that no rule has decided yet are in kLeft.
enum Register : std::uint8_t {
    kResult = BPF_REG_0,
    kContext = BPF_REG_1,
    kType = BPF_REG_2,
    kMajor = BPF_REG_3,
    kMinor = BPF_REG_4,
    kScratch = BPF_REG_5,
    kLeft = BPF_REG_6,
};

class Coder {
  public:
    explicit Coder(List<bpf_insn>& code) : code_(code) {}
    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] std::size_t size() const { return code_.size(); }

    void load(Register to, std::size_t offset)
    {
        add(BPF_LDX | BPF_MEM | BPF_W, to, kContext, static_cast<std::int16_t>(offset), 0);
    }
    void move(Register to, Register from) { add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
    void set(Register to, int value) { add(BPF_ALU64 | BPF_MOV | BPF_K, to, 0, 0, value); }
    void mask(Register to, unsigned bits)
    {
        add(BPF_ALU64 | BPF_AND | BPF_K, to, 0, 0, static_cast<int>(bits));
    }
    void shift_right(Register to, int bits) { add(BPF_ALU64 | BPF_RSH | BPF_K, to, 0, 0, bits); }
    // Jumps if the lower half of the register differs from the value, or is equal to it.
    void jump_unless(Register one, std::uint32_t value, int by = 0)
    {
        add(BPF_JMP32 | BPF_JNE | BPF_K, one, 0, static_cast<std::int16_t>(by),
            static_cast<int>(value));
    }
    void jump_if(Register one, std::uint32_t value, int by)
    {
        add(BPF_JMP32 | BPF_JEQ | BPF_K, one, 0, static_cast<std::int16_t>(by),
            static_cast<int>(value));
    }
    void answer(bool allow)
    {
        set(kResult, allow ? 1 : 0);
        add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);
    }
    // Sets the target of the jump at `at` to the next instruction that is added.
    void land(std::size_t at)
    {
        if (!failed_)
            code_[at].off = static_cast<std::int16_t>(code_.size() - at - 1);
    }

  private:
    void add(unsigned code, std::uint8_t to, std::uint8_t from, std::int16_t offset, int value)
    {
        bpf_insn insn = {};
        insn.code = static_cast<std::uint8_t>(code);
        insn.dst_reg = to & 0xf;
        insn.src_reg = from & 0xf;
        insn.off = offset;
        insn.imm = value;
        failed_ = failed_ || code_.append(insn) == nullptr;
    }
    List<bpf_insn>& code_;
    bool failed_ = false;
};

// Code for one rule: if it matches, a denied access makes the program return 0; allowed accesses
// are removed from kLeft.
void code_rule(Coder& code, const DeviceRule& rule)
{
    constexpr int kOverAnswer = 2;
    std::size_t jumps[3];
    std::size_t count = 0;
    const auto unless = [&](Register one, std::uint32_t value) {
        jumps[count++] = code.size();
        code.jump_unless(one, value);
    };
    if (rule.type != 'a')
        unless(kType, rule.type == 'b' ? BPF_DEVCG_DEV_BLOCK : BPF_DEVCG_DEV_CHAR);
    if (rule.major != kAnyDevice)
        unless(kMajor, static_cast<std::uint32_t>(rule.major));
    if (rule.minor != kAnyDevice)
        unless(kMinor, static_cast<std::uint32_t>(rule.minor));
    if (rule.allow) {
        code.mask(kLeft, kAllAccess & ~access_bits(rule));
        code.jump_unless(kLeft, 0, kOverAnswer);
        code.answer(true);
    } else {
        code.move(kScratch, kLeft);
        code.mask(kScratch, access_bits(rule));
        code.jump_if(kScratch, 0, kOverAnswer);
        code.answer(false);
    }
    for (std::size_t i = 0; i < count; i++)
        code.land(jumps[i]);
}

// ---------------------------------------------------------------- programs of a group

int bpf(enum bpf_cmd command, bpf_attr& attr)
{
    return static_cast<int>(::syscall(SYS_bpf, command, &attr, sizeof attr));
}

std::uint64_t address(const void* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

UniqueFd load_program(const List<bpf_insn>& code)
{
    bpf_attr attr = {};
    attr.prog_type = BPF_PROG_TYPE_CGROUP_DEVICE;
    attr.expected_attach_type = BPF_CGROUP_DEVICE;
    attr.insn_cnt = static_cast<std::uint32_t>(code.size());
    attr.insns = address(code.begin());
    attr.license = address(""); // no GPL-only helper is called
    std::memcpy(attr.prog_name, kProgramName, sizeof kProgramName);
    return UniqueFd(bpf(BPF_PROG_LOAD, attr));
}

bool is_ours(int program)
{
    bpf_prog_info info = {};
    bpf_attr attr = {};
    attr.info.bpf_fd = static_cast<std::uint32_t>(program);
    attr.info.info_len = sizeof info;
    attr.info.info = address(&info);
    return bpf(BPF_OBJ_GET_INFO_BY_FD, attr) == 0 && std::strcmp(info.name, kProgramName) == 0;
}

// The program that devices_apply() attached to this group earlier. Empty if there is none; `error`
// says whether that is certain.
UniqueFd attached_program(int group, int& error)
{
    std::uint32_t ids[kProgramsMax] = {};
    bpf_attr attr = {};
    attr.query.target_fd = static_cast<std::uint32_t>(group);
    attr.query.attach_type = BPF_CGROUP_DEVICE;
    attr.query.prog_ids = address(ids);
    attr.query.prog_cnt = kProgramsMax;
    error = bpf(BPF_PROG_QUERY, attr) == 0 ? 0 : errno;
    for (std::uint32_t i = 0; error == 0 && i < attr.query.prog_cnt; i++) {
        bpf_attr open = {};
        open.prog_id = ids[i];
        UniqueFd program(bpf(BPF_PROG_GET_FD_BY_ID, open));
        if (program && is_ours(program.get()))
            return program;
    }
    return {};
}

// Several programs may be attached to a group, for example one by the service manager: an access is
// allowed only if all programs allow it. An earlier one of ours is replaced in one step.
int attach(int group, int program, const UniqueFd& earlier)
{
    bpf_attr attr = {};
    attr.target_fd = static_cast<std::uint32_t>(group);
    attr.attach_bpf_fd = static_cast<std::uint32_t>(program);
    attr.attach_type = BPF_CGROUP_DEVICE;
    attr.attach_flags = BPF_F_ALLOW_MULTI;
    if (earlier) {
        attr.attach_flags |= BPF_F_REPLACE;
        attr.replace_bpf_fd = static_cast<std::uint32_t>(earlier.get());
    }
    return bpf(BPF_PROG_ATTACH, attr) == 0 ? 0 : errno;
}

// ENOTSUP if the kernel has no such programs.
int apply_v2(int group, const List<DeviceRule>& rules)
{
    List<bpf_insn> code;
    int error = device_code(rules.all(), code);
    if (error != 0)
        return error;
    const UniqueFd program = load_program(code);
    if (!program)
        return errno == ENOSYS || errno == EINVAL ? ENOTSUP : errno;
    const UniqueFd earlier = attached_program(group, error);
    return error != 0 ? error : attach(group, program.get(), earlier);
}

} // namespace

int device_list(std::span<const DeviceRule> rules, DeviceList& list)
{
    if (rules.size() > kDeviceRulesMax)
        return E2BIG;
    int error = 0;
    for (const DeviceRule& rule : rules) {
        if (is_everything(rule)) {
            list = DeviceList();
            list.allowAll = rule.allow;
            continue;
        }
        for (const char type : {'b', 'c'}) {
            DeviceRule one = rule;
            one.type = type;
            if (error == 0 && (rule.type == 'a' || rule.type == type))
                error = add_rule(list, one);
        }
    }
    if (!list.allowAll)
        join_exceptions(list);
    return error;
}

int device_code(std::span<const DeviceRule> rules, List<bpf_insn>& code)
{
    if (rules.size() > kDeviceRulesMax)
        return E2BIG;
    Coder coder(code);
    coder.load(kType, offsetof(bpf_cgroup_dev_ctx, access_type)); // accesses in the upper half
    coder.load(kMajor, offsetof(bpf_cgroup_dev_ctx, major));
    coder.load(kMinor, offsetof(bpf_cgroup_dev_ctx, minor));
    coder.move(kLeft, kType);
    coder.shift_right(kLeft, 16);
    coder.mask(kType, 0xffff);
    for (std::size_t i = rules.size(); i > 0; i--)
        code_rule(coder, rules[i - 1]);
    coder.answer(false);
    return coder.failed() ? ENOMEM : 0;
}

int devices_apply(const Hierarchies& hierarchies, const GroupPath& path,
                  const List<DeviceRule>& rules, const char** field)
{
    if (rules.empty())
        return 0;
    LimitGroup group;
    int error = group.open(hierarchies, path, Controller::kDevices);
    if (error == 0)
        error = group.unified() ? apply_v2(group.get(), rules) : apply_v1(group, rules);
    if (error != 0)
        *field = kField;
    return error;
}

} // namespace zn
