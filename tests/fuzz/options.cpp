// The command line: option parsing and filters. An input holds the arguments, each up to a zero
// byte.

#include "contract.h"
#include "layouts.h"
#include "run.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>

using namespace tier_fuzz;

namespace {

constexpr std::size_t MOST_ARGUMENTS = 64;

// A filter pair of nothing but "=" never ends. Whatever may be read as one, wherever an option
// ends and its argument begins, is kept out: a run of "=" up to a comma or the end, before which
// stands the beginning, a comma, the option's letter or the sign that ends its name.
bool may_never_end(std::string_view argument)
{
    for (std::size_t at = argument.find('='); at < argument.size(); at = argument.find('=', at)) {
        const std::size_t after = std::min(argument.find_first_not_of('=', at), argument.size());
        const bool ends = after == argument.size() || argument[after] == ',';
        const bool begins = at == 0 || argument[at - 1] == ',' || argument[at - 1] == 'g';
        if (ends && (begins || after - at > 1)) {
            return true;
        }
        at = after;
    }
    return false;
}

std::vector<std::string> arguments_of(View data)
{
    std::vector<std::string> arguments = {"zu_tier"};
    std::string_view rest(reinterpret_cast<const char *>(data.data()), data.size());
    while (!rest.empty() && arguments.size() < MOST_ARGUMENTS) {
        const std::size_t end = std::min(rest.find('\0'), rest.size());
        arguments.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return arguments;
}

// What holds of the parameters after a command line that was accepted.
void check_accepted(const zutr_params_t &params)
{
    require(ZUTR_CMD_VALID(params.cmd) && s_command_name[params.cmd] != nullptr, "a command");
    require(std::string_view(params.dev_path) == DEVICE_NAME, "the device that there is");
    require(params.fd == DEVICE_FD && world.device_open, "the device is open");
    require(world.device_writable == (params.commit != 0), "only a commit can write");
    require((params.sb == nullptr) == (params.spec_ver != 0), "a forced version asks nobody");
    require(params.out_fp != nullptr, "there is an output");
    require(world.output_open() == (params.out_path != nullptr), "an output of that name");
    require(params.base_no == 0, "entries are numbered from 0");
    for (const std::int32_t flag : {params.force, params.commit}) {
        require(flag == 0 || flag == 1, "a flag is set or not");
    }
    const char *id = params.filter.id;
    require(id == nullptr || (std::strchr(id, ',') == nullptr && id[0] != '='),
            "an identity without what ends it");
}

void check_refused(const zutr_params_t &params, std::int32_t ret)
{
    require(ret == 1 || ret == -EIO || ret == -EINVAL, "a command line is refused with 5 or 22");
    require(params.fd == -1 && params.sb == nullptr, "nothing is left open");
}

std::int64_t prepare(std::vector<char *> &argv, std::size_t count)
{
    zutr_params_t params;
    const std::int32_t ret = zutr_prepare_param(static_cast<int>(count), argv.data(), &params);
    ret == 0 ? check_accepted(params) : check_refused(params, ret);
    zutr_params_fini(&params);
    zutr_params_fini(&params); // which is harmless
    require(params.fd == -1 && params.sb == nullptr, "everything is released");
    return ret;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::vector<std::string> arguments = arguments_of({data, size});
    for (const std::string &argument : arguments) {
        if (may_never_end(argument)) {
            return -1;
        }
    }
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    static const Bytes super = sample_super(1);
    world.reset();
    world.device.put(BLOCK, super);
    const Outcome outcome = run([&] { return prepare(argv, arguments.size()); });
    require(outcome.ending == Ending::returned, "a command line fails no assertion");
    require(!world.device_open && !world.output_open(), "what was opened is closed");
    require(world.device.writes().empty(), "nothing is written");
    return 0;
}
