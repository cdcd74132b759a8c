// Through this the agent's updater asks a product for information and tells it about updates.
#pragma once

#include <string>

#include "lpc/shapes.h"

namespace velmor_com::NQ::updater {

using namespace cmx::updater;

class IUpdateCallback : public LPC::ILPCInterface {
  public:
    static constexpr char kInterfaceId[] = "IUpdateCallback";

    /// `state` comes back to the caller.
    virtual tag_PRODUCT_RETURN_VALUE UpdateNotify(const std::wstring &software,
                                                  const std::wstring &type,
                                                  const std::wstring &message,
                                                  tag_UPDATE_STATE &state) = 0;
    /// Stores the information of that name in `value`; other names leave it as it is.
    virtual tag_PRODUCT_RETURN_VALUE GetProductInfo(const std::wstring &software,
                                                    const std::wstring &name,
                                                    std::wstring &value) = 0;
    virtual tag_PRODUCT_RETURN_VALUE SetProductInfo(const std::wstring &software,
                                                    const std::wstring &name,
                                                    const std::wstring &value) = 0;

    static constexpr auto operations() {
        using I = IUpdateCallback;
        return std::make_tuple(LPC::Operation{"UpdateNotify", &I::UpdateNotify},
                               LPC::Operation{"GetProductInfo", &I::GetProductInfo},
                               LPC::Operation{"SetProductInfo", &I::SetProductInfo});
    }
};

template <class Caller>
class IUpdateCallback_Proxy : public Caller {
    using I = IUpdateCallback;
    using Text = const std::wstring &;

  public:
    using Caller::Caller;
    tag_PRODUCT_RETURN_VALUE UpdateNotify(Text software, Text type, Text message,
                                          tag_UPDATE_STATE &state) override {
        return this->call(&I::UpdateNotify, software, type, message, state);
    }
    tag_PRODUCT_RETURN_VALUE GetProductInfo(Text software, Text name,
                                            std::wstring &value) override {
        return this->call(&I::GetProductInfo, software, name, value);
    }
    tag_PRODUCT_RETURN_VALUE SetProductInfo(Text software, Text name, Text value) override {
        return this->call(&I::SetProductInfo, software, name, value);
    }
};

using IUpdateCallback_S = LPC::Servant<IUpdateCallback>;
using IUpdateCallback_Client_Impl = IUpdateCallback_Proxy<LPC::RemoteCall<IUpdateCallback>>;
using Adaptor_IUpdateCallback = LPC::Adaptor<IUpdateCallback>;
using Adaptor_InProc_IUpdateCallback = IUpdateCallback_Proxy<LPC::InProcessCall<IUpdateCallback>>;

}  // namespace velmor_com::NQ::updater
