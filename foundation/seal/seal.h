// Every public class of the cryptography library.
#pragma once

#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "seal/KeyWrap.h"
#include "seal/Random.h"
