#include "Platform/SMCUserClient.hpp"

namespace quenzel::platform {
namespace {

class AbsentSMCUserClient final : public SMCUserClient {
 public:
  bool open() override { return false; }
  void close() override {}
  bool exchange(const SMCExchangeBytes&, SMCExchangeBytes&) override { return false; }
};

}  // namespace

std::unique_ptr<SMCUserClient> makeSMCUserClient() { return std::make_unique<AbsentSMCUserClient>(); }

}  // namespace quenzel::platform
