#include "dischive/field_names.h"

#include <fmt/format.h>

namespace dischive {
namespace {

namespace f = field;

constexpr FieldName kFieldNames[] = {
    {f::kArtist, "Artist", FieldKind::kText},
    {f::kTitle, "Title", FieldKind::kText},
    {f::kTrackTitle, "TrackTitle", FieldKind::kText},
    {f::kVariousArtists, "VariousArtists", FieldKind::kNumber},
    {f::kFreedbComment, "FreeDBComment", FieldKind::kText},
    {f::kRevision, "Revision", FieldKind::kNumber},
    {f::kReleaseDate, "ReleaseDate", FieldKind::kDate},
    {f::kGenre, "Genre", FieldKind::kText},
    {f::kGenre2, "Genre2", FieldKind::kText},
    {f::kCategory, "Category", FieldKind::kText},
    {f::kIsClassical, "IsClassical", FieldKind::kNumber},
    {f::kIsSingle, "IsSingle", FieldKind::kNumber},
    {f::kIsCompilation, "IsCompilation", FieldKind::kNumber},
    {f::kIsSoundtrack, "IsSoundtrack", FieldKind::kNumber},
    {f::kIsBootleg, "IsBootleg", FieldKind::kNumber},
    {f::kIsPromo, "IsPromo", FieldKind::kNumber},
    {f::kIsPrivate, "IsPrivate", FieldKind::kNumber},
    {f::kIsRare, "IsRare", FieldKind::kNumber},
    {f::kInCollection, "InCollection", FieldKind::kNumber},
    {f::kMciId, "MCIID", FieldKind::kHex},
    {f::kIcon, "Icon", FieldKind::kNumber},
    {f::kYear, "Year", FieldKind::kText},
    {f::kComment, "Comment", FieldKind::kText},
    {f::kRefNo, "RefNo", FieldKind::kText},
    {f::kUpc, "UPC", FieldKind::kText},
    {f::kAsin, "ASIN", FieldKind::kText},
    {f::kLabel, "Label", FieldKind::kText},
    {f::kCatalogNo, "CatalogNo", FieldKind::kText},
    {f::kCountry, "Country", FieldKind::kText},
    {f::kCompany, "Company", FieldKind::kText},
    {f::kReissueLabel, "ReissueLabel", FieldKind::kText},
    {f::kReissueDate, "ReissueDate", FieldKind::kDate},
    {f::kDistributor, "Distributor", FieldKind::kText},
    {f::kPrice, "Price", FieldKind::kMoney},
    {f::kOriginalPrice, "OriginalPrice", FieldKind::kMoney},
    {f::kStore, "Store", FieldKind::kText},
    {f::kLocation, "Location", FieldKind::kText},
    {f::kStatus, "Status", FieldKind::kText},
    {f::kBorrower, "Borrower", FieldKind::kText},
    {f::kCheckinDate, "CheckinDate", FieldKind::kDate},
    {f::kCheckoutDate, "CheckoutDate", FieldKind::kDate},
    {f::kPackaging, "Packaging", FieldKind::kText},
    {f::kCondition, "Condition", FieldKind::kText},
    {f::kServiceId, "ServiceID", FieldKind::kText},
    {f::kRating, "Rating", FieldKind::kNumber},
    {f::kLastPlayed, "LastPlayed", FieldKind::kHex},
    {f::kMono, "Mono", FieldKind::kNumber},
    {f::kLive, "Live", FieldKind::kNumber},
    {f::kInstrumental, "Instrumental", FieldKind::kNumber},
    {f::kInterview, "Interview", FieldKind::kNumber},
    {f::kMultichannel, "Multichannel", FieldKind::kNumber},
    {f::kStereoMultichannelHybrid, "StereoMultichannelHybrid", FieldKind::kNumber},
    {f::kHighResolution, "HighResolution", FieldKind::kNumber},
    {f::kHighNormalResolutionHybrid, "HighNormalResolutionHybrid", FieldKind::kNumber},
    {f::kRemastered, "Remastered", FieldKind::kNumber},
    {f::kBitrate, "Bitrate", FieldKind::kNumber},
    {f::kKeywords, "Keywords", FieldKind::kText},
    {f::kReviewCredit, "ReviewCredit", FieldKind::kText},
    {f::kLyrics, "Lyrics", FieldKind::kText},
    {f::kRecDate, "RecDate", FieldKind::kDate},
    {f::kRecSource, "RecSource", FieldKind::kText},
    {f::kRecGeneration, "RecGeneration", FieldKind::kText},
    {f::kRecQuality, "RecQuality", FieldKind::kText},
    {f::kRecTour, "RecTour", FieldKind::kText},
    {f::kRecCity, "RecCity", FieldKind::kText},
    {f::kRecCountry, "RecCountry", FieldKind::kText},
    {f::kRecVenue, "RecVenue", FieldKind::kText},
    {f::kRecStudio, "RecStudio", FieldKind::kText},
    {f::kSpars, "SPARS", FieldKind::kText},
    {f::kRatingTime, "RatingTime", FieldKind::kHex},
    {f::kScanStamp, "ScanStamp", FieldKind::kText},
    {f::kScanFlags, "ScanFlags", FieldKind::kHex},
    {f::kScanValue3, "ScanValue3", FieldKind::kText},
    {f::kFilePath, "FilePath", FieldKind::kText},
    {f::kFileSize, "FileSize", FieldKind::kText},
    {f::kBpm, "BPM", FieldKind::kNumber},
    {f::kComposer, "Composer", FieldKind::kText},
    {f::kTrackRating, "TrackRating", FieldKind::kNumber},
    {f::kFormat, "Format", FieldKind::kText},
    {f::kBookletPages, "BookletPages", FieldKind::kNumber},
    {f::kAmazonServer, "AmazonServer", FieldKind::kText},
    {f::kAmazonClassical, "AmazonClassical", FieldKind::kNumber},
    {f::kText[0], "Text1", FieldKind::kText},
    {f::kText[1], "Text2", FieldKind::kText},
    {f::kText[2], "Text3", FieldKind::kText},
    {f::kText[3], "Text4", FieldKind::kText},
    {f::kText[4], "Text5", FieldKind::kText},
    {f::kText[5], "Text6", FieldKind::kText},
    {f::kText[6], "Text7", FieldKind::kText},
    {f::kText[7], "Text8", FieldKind::kText},
    {f::kText[8], "Text9", FieldKind::kText},
    {f::kText[9], "Text10", FieldKind::kText},
    {f::kDate[0], "Date1", FieldKind::kDate},
    {f::kDate[1], "Date2", FieldKind::kDate},
    {f::kDate[2], "Date3", FieldKind::kDate},
    {f::kDate[3], "Date4", FieldKind::kDate},
    {f::kDate[4], "Date5", FieldKind::kDate},
    {f::kMemo[0], "Memo1", FieldKind::kText},
    {f::kMemo[1], "Memo2", FieldKind::kText},
    {f::kMemo[2], "Memo3", FieldKind::kText},
    {f::kMemo[3], "Memo4", FieldKind::kText},
    {f::kMemo[4], "Memo5", FieldKind::kText},
    {f::kBool[0], "Bool1", FieldKind::kNumber},
    {f::kBool[1], "Bool2", FieldKind::kNumber},
    {f::kBool[2], "Bool3", FieldKind::kNumber},
    {f::kBool[3], "Bool4", FieldKind::kNumber},
    {f::kBool[4], "Bool5", FieldKind::kNumber},
    {f::kBool[5], "Bool6", FieldKind::kNumber},
    {f::kBool[6], "Bool7", FieldKind::kNumber},
    {f::kBool[7], "Bool8", FieldKind::kNumber},
    {f::kBool[8], "Bool9", FieldKind::kNumber},
    {f::kBool[9], "Bool10", FieldKind::kNumber},
};

}  // namespace

std::span<const FieldName> FieldNames() {
  return kFieldNames;
}

const FieldName* FindFieldName(field::FieldId id) {
  for (const FieldName& entry : kFieldNames) {
    if (entry.id == id) return &entry;
  }
  return nullptr;
}

std::string FieldLabel(field::FieldId id) {
  const FieldName* entry = FindFieldName(id);
  return entry != nullptr ? entry->name : fmt::format("0x{:08X}", id);
}

}  // namespace dischive
