// Property field ids of the catalogue. Every album, volume and track property is
// stored under one of these 32-bit ids, at index 0 (album or disc) or n (track n).
#pragma once

#include <cstdint>

namespace dischive::field {

using FieldId = uint32_t;

// Disc and track texts filled by a freedb lookup.
inline constexpr FieldId kArtist = 0x9FEFA437;          ///< disc artist (0) / track artist (n)
inline constexpr FieldId kTitle = 0x062B99E2;           ///< disc / album title
inline constexpr FieldId kTrackTitle = 0x06303755;      ///< track title
inline constexpr FieldId kVariousArtists = 0x36E74233;  ///< 1 for a various-artists disc
inline constexpr FieldId kFreedbComment = 0x503D0C16;   ///< EXTD (0) / EXTT (n)
inline constexpr FieldId kRevision = 0x26BDCC4F;        ///< xmcd revision
inline constexpr FieldId kReleaseDate = 0xFF0EE431;     ///< packed date
inline constexpr FieldId kGenre = 0xAD003362;           ///< genre text
inline constexpr FieldId kGenre2 = 0xAD003363;          ///< second genre, emptied with kGenre
inline constexpr FieldId kCategory = 0x1600323E;        ///< freedb category handed in by the caller

// Album flags.
inline constexpr FieldId kIsClassical = 0x1F2520ED;
inline constexpr FieldId kIsSingle = 0xC9464F42;
inline constexpr FieldId kIsCompilation = 0x334E5E7F;
inline constexpr FieldId kIsSoundtrack = 0xD0B5993E;
inline constexpr FieldId kIsBootleg = 0xE38A5C4C;
inline constexpr FieldId kIsPromo = 0x02F67850;
inline constexpr FieldId kIsPrivate = 0x1FCD819B;
inline constexpr FieldId kIsRare = 0x002EA2CA;
inline constexpr FieldId kInCollection = 0x05D8B23D;  ///< default 1
inline constexpr FieldId kMciId = 0x05A970C6;
inline constexpr FieldId kIcon = 0xE3132A80;

// Album fields.
inline constexpr FieldId kYear = 0xE8BE72B2;
inline constexpr FieldId kComment = 0x734D36D2;
inline constexpr FieldId kRefNo = 0xEF1AD35F;
inline constexpr FieldId kUpc = 0x5FAADA15;
inline constexpr FieldId kAsin = 0xC9FDA22A;
inline constexpr FieldId kLabel = 0x05962560;
inline constexpr FieldId kCatalogNo = 0xBE7507A9;
inline constexpr FieldId kCountry = 0xD21EE055;
inline constexpr FieldId kCompany = 0xD18EE3B8;
inline constexpr FieldId kReissueLabel = 0x88E347E0;
inline constexpr FieldId kReissueDate = 0xE519C83E;
inline constexpr FieldId kDistributor = 0xE9EF765C;
inline constexpr FieldId kPrice = 0x05E7F753;
inline constexpr FieldId kOriginalPrice = 0xE1DDE8A3;
inline constexpr FieldId kStore = 0x061F750D;
inline constexpr FieldId kLocation = 0x7216F2F9;
inline constexpr FieldId kStatus = 0x14197ED0;
inline constexpr FieldId kBorrower = 0x5BB32092;
inline constexpr FieldId kCheckinDate = 0xCCA3AF12;
inline constexpr FieldId kCheckoutDate = 0xEDBD6513;
inline constexpr FieldId kPackaging = 0x65BE1BEE;
inline constexpr FieldId kCondition = 0xA60A6830;

// Collection-service state of an album.
inline constexpr FieldId kServiceId = 0xFF412A5A;
inline constexpr FieldId kRating = 0xC663B5A5;
inline constexpr FieldId kLastPlayed = 0x24E38E77;

// Volume and track flags, in the collection document's writing order.
inline constexpr FieldId kMono = 0x002C1FF9;
inline constexpr FieldId kLive = 0x002B7B10;
inline constexpr FieldId kInstrumental = 0x45B0BCC6;
inline constexpr FieldId kInterview = 0x9113AB3D;
inline constexpr FieldId kMultichannel = 0xC56DF72C;
inline constexpr FieldId kStereoMultichannelHybrid = 0xDEB64CC6;
inline constexpr FieldId kHighResolution = 0xCBD645B2;
inline constexpr FieldId kHighNormalResolutionHybrid = 0x6A4F00A5;
inline constexpr FieldId kRemastered = 0x18016A4C;
inline constexpr FieldId kBitrate = 0x726FFD03;
inline constexpr FieldId kBool[10] = {0xF7690C29, 0xF76922A1, 0x76342F5F, 0xE485A8A3, 0xE4858F31,
                                      0xF7691C9B, 0x762082C8, 0x75251DD8, 0xE489F131, 0xF769204E};

// Track texts.
inline constexpr FieldId kKeywords = 0xB8EBBE78;
inline constexpr FieldId kReviewCredit = 0x924D8A0D;
inline constexpr FieldId kLyrics = 0x05A39303;
inline constexpr FieldId kRecDate = 0x81E935E5;
inline constexpr FieldId kRecSource = 0x1451944B;
inline constexpr FieldId kRecGeneration = 0xEAF021A0;
inline constexpr FieldId kRecQuality = 0x11217F83;
inline constexpr FieldId kRecTour = 0x002FF78A;
inline constexpr FieldId kRecCity = 0x0C55F021;
inline constexpr FieldId kRecCountry = 0xC9518137;
inline constexpr FieldId kRecVenue = 0x6172051F;
inline constexpr FieldId kRecStudio = 0x89C62DD4;
inline constexpr FieldId kSpars = 0xE9CF9E64;

// Catalogue engine: fields the library reads and writes beyond those above.
// Rating time of the album rating (seconds since 1970), sent with a rating notice.
inline constexpr FieldId kRatingTime = 0xC2E5EE24;
// Folder scan state of a volume (index 0): the folder's scan stamp, the scan
// flags the folder was scanned with, and the scan profile (the scanner's
// version and a hash of its extension list and settings section).
inline constexpr FieldId kScanStamp = 0x5C4A57A3;
inline constexpr FieldId kScanFlags = 0x5C4AF1A9;
inline constexpr FieldId kScanProfile = 0x5C4A0703;
/// The scan profile's first name, from when its meaning was not known.
inline constexpr FieldId kScanValue3 = kScanProfile;
// Music files of a track: its path and size in bytes (text, as sizes may exceed 31 bits).
inline constexpr FieldId kFilePath = 0x0F11E9A7;
inline constexpr FieldId kFileSize = 0x0F11E512;
// Track or volume: beats per minute, composer text, per-track rating.
inline constexpr FieldId kBpm = 0x0000B9A1;
inline constexpr FieldId kComposer = 0x3C0A9051;
inline constexpr FieldId kTrackRating = 0xC663B5A6;
// Album: format text, booklet page count, Amazon server and classical-store flag.
inline constexpr FieldId kFormat = 0x1D4F0A71;
inline constexpr FieldId kBookletPages = 0xB0C1E7A5;
inline constexpr FieldId kAmazonServer = 0xA3A20051;
inline constexpr FieldId kAmazonClassical = 0xA3A2C1A5;
// User fields of albums and tracks: Text1-Text10, Date1-Date5 (packed dates), Memo1-Memo5.
inline constexpr FieldId kText[10] = {0x7E470001, 0x7E470002, 0x7E470003, 0x7E470004, 0x7E470005,
                                      0x7E470006, 0x7E470007, 0x7E470008, 0x7E470009, 0x7E47000A};
inline constexpr FieldId kDate[5] = {0xDA7E0001, 0xDA7E0002, 0xDA7E0003, 0xDA7E0004, 0xDA7E0005};
inline constexpr FieldId kMemo[5] = {0x3E3A0001, 0x3E3A0002, 0x3E3A0003, 0x3E3A0004, 0x3E3A0005};

// Folder scan: the folder a scanned volume was read from (index 0).
inline constexpr FieldId kScanFolder = 0x3B7D19C7;

}  // namespace dischive::field
