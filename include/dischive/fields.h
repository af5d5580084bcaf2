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

// Folder scan: change detection of a scanned folder (volume, index 0) and the
// file a track was read from (index n).
inline constexpr FieldId kScanStamp =
    0x3B7D19C4;  ///< hash of the folder's file names, sizes, times
inline constexpr FieldId kScanFlags = 0x3B7D19C5;    ///< scan flags the folder was scanned with
inline constexpr FieldId kScanProfile = 0x3B7D19C6;  ///< scanner version and extension-list hash
inline constexpr FieldId kScanFolder = 0x3B7D19C7;   ///< the folder's path
inline constexpr FieldId kScanFile = 0x3B7D19C8;     ///< the track's file name

}  // namespace dischive::field
