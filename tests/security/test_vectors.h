// Vectors computed outside this code base: PBKDF2 with Python's hashlib.pbkdf2_hmac('sha512'),
// AES-256-CBC with `openssl enc -aes-256-cbc -K .. -iv ..`, HMAC-SHA-512 with
// `openssl dgst -sha512 -mac HMAC -macopt hexkey:..`.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvane/foundation/bytes.h"

namespace corvane::testvectors {

inline Bytes fromHex(std::string_view hex) {
  auto nibble = [](char c) -> uint8_t {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    return static_cast<uint8_t>(c - 'A' + 10);
  };
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(nibble(hex[i]) << 4 | nibble(hex[i + 1])));
  return out;
}

// Bytes first, first+1, ..., count of them.
inline Bytes sequence(uint8_t first, size_t count) {
  Bytes out(count);
  for (size_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>(first + i);
  return out;
}

inline Bytes concat(std::initializer_list<ByteView> parts) {
  Bytes out;
  for (ByteView p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// PBKDF2-HMAC-SHA-512("password", salt = 00 01 .. 3f, 1000 rounds, 64 bytes).
inline constexpr std::string_view kDerived1000 =
    "b1ea1939de322a9e2a7a99c77919ce22aa31a447afcbde93cfd9a8b982122b6a"
    "9d28a79437a74e1bc3970b88255a68493579517a4eaa189ab41e9958b45e9d71";
// The same with 100000 rounds, the count of real documents.
inline constexpr std::string_view kDerived100000 =
    "162d8a9ab443831e8135765308e67cb0c6495e227d3ca60d1afd8db43e2707a6"
    "b654f57a8197639b91c8c0088130884ea148304a2e6638af58b964ecbc08c83b";
// PBKDF2-HMAC-SHA-512(no password bytes, salt 00 .. 3f, 1 round).
inline constexpr std::string_view kDerivedEmptyPassword1 =
    "aa3dd6cbd345fbcc1423e3e0a1c31c3ba0bc595be2ae2be36bd057b7dbdc5c7c"
    "291d79f7f0caac19c5a650117486c177ff2dccd1765b667afc2883fcf08955e6";
// PBKDF2-HMAC-SHA-512("pässwörd" in UTF-8, salt 00 .. 3f, 2 rounds).
inline constexpr std::string_view kDerivedUmlauts2 =
    "42c46ba5db9da31925a7f25d18897dcf1870539979c3f0b325067a95b3e16f04"
    "e88e729d5058e0f7b247d53c501a81df52152b41fe8b5224a10aafa146d515bd";

// Under the keys of kDerived1000 with the IV 00 01 .. 0f:
inline constexpr std::string_view kFox = "The quick brown fox jumps over the lazy dog";
inline constexpr std::string_view kFoxCiphertext =
    "88cd62ce9270da4d97a9ee1a60955f461f8fbcb53b0b111c40de861b5a08e588"
    "073355be989582fdc001395ac01ef3f4";
inline constexpr std::string_view kFoxTag =
    "54234caa34ca339a7a396f10e7aee9aa6ac2df9a98ddb10a5af1a766ba181069"
    "222d3a547d1b6213ecc5f57bc50123baf6aafef9850bf80d1298a480aa8c0bb4";
inline constexpr std::string_view kEmptyCiphertext = "f3ee00f3e62f614e4d4642a29a3add55";
inline constexpr std::string_view kEmptyTag =
    "faae6c66f0c0b0194eea2d89337e7ea7c75d232c314a9af73f1e5ff44c316f16"
    "53cc810bdda77ddae4136ff5b62d1de20d2c92c5b7eacb839e223bce186a65af";
// Valid tags over blocks the cipher must refuse: the IV alone, the IV and a zero block (whose
// plain text ends in 0x60, bad padding), the IV and 17 zero bytes (not whole blocks).
inline constexpr std::string_view kTagOfIVOnly =
    "ddbc48dc6999d24b0ece9d44b4f41d2e4117abd6d3bcdccc3e9d9c120cb3af63"
    "56a8bf59ac348f922f8540e366fa56cb49d57cbc505ffbc072d4e768da5ce72b";
inline constexpr std::string_view kTagOfZeroBlock =
    "810d9ee474c979a1521c8f41b72b08790ce522c3519110fa00d0246e4a96c616"
    "4d8796f94b7161777fb2966ebf043c535b82a22ac82db9365e5646ad62723876";
inline constexpr std::string_view kTagOf17Zeros =
    "427a6f71316bb6b48a54d8514d1c4795f459b9fea69094788794530873b4a1ce"
    "aefc9ab82b771ad560552ce29119801dada0a9352a4b5ba9a7f8e0d2244c99c7";

// A package's "Encryption" entry for the password "correct horse": salt (i*7+3) mod 256 for
// i = 0..63, 1000 rounds, verifier encrypted with the IV a0 .. af.
inline constexpr std::string_view kPackagePassword = "correct horse";
inline constexpr int64_t kPackageRounds = 1000;
inline Bytes packageSalt() {
  Bytes out(64);
  for (size_t i = 0; i < 64; ++i) out[i] = static_cast<uint8_t>((i * 7 + 3) % 256);
  return out;
}
inline constexpr std::string_view kPackageSaltBase64 =
    "AwoRGB8mLTQ7QklQV15lbHN6gYiPlp2kq7K5wMfO1dzj6vH4/wYNFBsiKTA3PkVMU1phaG92fYSLkpmgp661vA==";
inline constexpr std::string_view kPackageVerifierBase64 =
    "oKGio6SlpqeoqaqrrK2urxSLBRDLS3bO/8ekQC82nlr0F8g7zwoPGW9N95h92rIqV1Xs5g95MwlsxuiaBvumFwtTrnc+"
    "GSzld5b1P7b0rz9XktbWwHifX9wf6xmILExF";
// That package's "Encryption" entry, as it stands in its Info.plist.
inline std::string packageEncryptionPlistEntry() {
  return "\t<key>Encryption</key>\n\t<dict>\n\t\t<key>Info</key>\n\t\t<data>" + std::string(kPackageVerifierBase64) +
         "</data>\n\t\t<key>Rounds</key>\n\t\t<integer>1000</integer>\n\t\t<key>Salt</key>\n\t\t<data>" +
         std::string(kPackageSaltBase64) + "</data>\n\t</dict>\n";
}
// A change file of that package, encrypted with the IV b0 .. bf.
inline constexpr std::string_view kPackageChangePlain = "{\"name\":\"2026-01-01-00-00-00.000.ABC\",\"inserted\":[]}\n";
inline constexpr std::string_view kPackageChangeBlock =
    "b0b1b2b3b4b5b6b7b8b9babbbcbdbebf91ade0f025a126814617db61df3514c6d9fa067b3735e6257cd970199561"
    "460acda15e92e3c8b784d4aac1c6429efd3d43f24f4581d7da2642dbbdc9d27399b9a770102be25f4c24d5099977"
    "40d32b1cf3f15d9a7513bf97126970cb68c8da017a1ddc662151447888af2024f2ed311b0518d93ee03bc7a3eecd"
    "046d9fcad8d6";

}  // namespace corvane::testvectors
