#pragma once

#include "enterprise/common/por/value.h"

namespace Por {

class NilValueHolder final : public Construction::NilValue {};

}  // namespace Por
