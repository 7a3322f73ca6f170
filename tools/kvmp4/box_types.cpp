// Which boxes stand where, by ISO/IEC 14496-12, -14, -15, -30 and the QuickTime File Format.
#include "box_tree.h"

#include <algorithm>
#include <map>

namespace {

using Types = std::vector<std::string_view>;

const std::map<std::string_view, Types>& Table()
{
    static const std::map<std::string_view, Types> table = {
        {"", {"ftyp", "styp", "moov", "mdat", "free", "skip", "wide", "moof",
              "mfra", "sidx", "ssix", "prft", "emsg", "pdin", "meta", "uuid",
              "udta", "pnot", "junk", "imda", "meco", "bloc", "PICT", "pict"}},
        {"moov",
         {"mvhd", "trak", "udta", "mvex", "iods", "meta", "uuid", "free", "skip", "wide", "pssh",
          "cmov", "clip", "ctab", "prfl", "rmra", "ainf", "meco", "trep"}},
        {"trak",
         {"tkhd", "edts", "tref", "mdia", "udta", "meta", "uuid", "free", "skip", "wide", "tapt",
          "clip", "matt", "load", "imap", "txas", "trgr", "strk", "kmat", "prfl", "meco", "crgn"}},
        {"edts", {"elst", "free", "skip"}},
        {"mdia", {"mdhd", "hdlr", "minf", "elng", "free", "skip", "udta", "uuid"}},
        {"minf",
         {"vmhd", "smhd", "hmhd", "nmhd", "gmhd", "sthd", "dinf", "stbl", "hdlr", "free", "skip",
          "uuid"}},
        {"dinf", {"dref", "free", "skip"}},
        {"dref", {"url ", "urn ", "alis", "rsrc", "imdt", "snim"}},
        {"stbl", {"stsd", "stts", "ctts", "cslg", "stsc", "stsz", "stz2", "stco", "co64",
                  "stss", "stsh", "padb", "stdp", "sdtp", "sbgp", "csgp", "sgpd", "subs",
                  "saiz", "saio", "stps", "free", "skip", "senc", "uuid"}},
        {"mvex", {"mehd", "trex", "leva", "trep", "uuid", "free", "skip"}},
        {"moof", {"mfhd", "traf", "meta", "pssh", "uuid", "free", "skip"}},
        {"traf",
         {"tfhd", "tfdt", "trun", "sbgp", "csgp", "sgpd", "subs", "saiz", "saio", "senc", "sdtp",
          "meta", "uuid", "free", "skip"}},
        {"mfra", {"tfra", "mfro"}},
        // Sample entries of any kind, whose boxes tell a decoder what it needs.
        {"stsd/entry",
         {"avcC", "hvcC", "lhvC", "hvcE", "svcC", "mvcC", "vvcC", "m4ds", "esds", "wave", "pasp",
          "colr", "fiel", "clap", "btrt", "gama", "chan", "chnl", "sinf", "rinf", "srat", "dOps",
          "dfLa", "dac3", "dec3", "dac4", "dmlp", "ddts", "dvcC", "dvvC", "dvwC", "alac", "vpcC",
          "av1C", "mhaC", "SmDm", "CoLL", "mdcv", "clli", "cclv", "amve", "ftab", "vttC", "vlab",
          "name", "frma", "pcmC", "samr", "damr", "d263", "bitr", "glbl", "jp2h", "ACLR", "ARES",
          "APRG", "ADHR", "tims", "tsro", "snro", "st3d", "sv3d", "vexu", "hfov", "SA3D", "mjqt",
          "mjht", "enda", "udta", "uuid", "free", "skip", "iods", "strf", "text", "mime", "txtC",
          "prfl", "tmcd", "auxi", "ccst", "clef", "blin", "cmfy", "dhlr", "SANF", "sgpd"}},
        {"gmhd", {"gmin", "text", "tmcd", "gtht", "wave", "free", "skip"}},
        {"nmhd", {"gmin", "text"}},
        {"gmhd/tmcd", {"tcmi"}},
        {"tref", {"hint", "cdsc", "font", "hind", "vdep", "vplx", "subt", "tmcd", "chap",
                  "sync", "scpt", "ssrc", "folw", "cdep", "clcp", "forc", "mpod", "dpnd",
                  "ipir", "auxl", "thmb", "rndr", "adrc", "swto", "swfr", "aesn", "avcp",
                  "fall", "sbas", "scal", "tbas", "sabt", "oref", "free", "skip"}},
        {"wave",
         {"frma", "mp4a", "esds", "enda", "chan", "sinf", "alac", "samr", "dac3", "dec3", "ac-3",
          "QDCA", "QDMC", "glbl", ".mp3", "free", "skip"}},
        {"meta", {"hdlr", "keys", "ilst", "free", "skip", "ctry", "lang", "mhdr", "uuid", "iloc",
                  "iinf", "pitm", "idat", "iref", "iprp", "dinf", "xml ", "bxml", "ID32", "grpl"}},
    };
    return table;
}

}  // namespace

const std::vector<std::string_view>* KnownChildren(std::string_view container)
{
    const auto found = Table().find(container);
    return found == Table().end() ? nullptr : &found->second;
}

bool KnownSomewhere(const std::string& type)
{
    return std::any_of(Table().begin(), Table().end(), [&](const auto& row) {
        return std::find(row.second.begin(), row.second.end(), type) != row.second.end();
    });
}

std::string ReadableType(const std::string& type)
{
    std::string text;
    for (const char c : type) {
        if (c == '\xA9')
            text += "\xC2\xA9";
        else
            text += c >= ' ' && c <= '~' ? c : '.';
    }
    return text;
}

std::string ReadableText(const std::string& text)
{
    const auto byte = [&](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
    };
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const unsigned lead = byte(i);
        const std::size_t length = lead < 0x80                   ? 1
                                   : lead >= 0xC2 && lead < 0xE0 ? 2
                                   : lead >= 0xE0 && lead < 0xF0 ? 3
                                   : lead >= 0xF0 && lead < 0xF5 ? 4
                                                                 : 0;
        bool whole = length > 0;
        for (std::size_t k = 1; k < length; ++k)
            whole = whole && byte(i + k) >> 6 == 2;
        // Second bytes that would make a surrogate, an overlong form or too great a number.
        whole = whole && !(lead == 0xE0 && byte(i + 1) < 0xA0) &&
                !(lead == 0xED && byte(i + 1) > 0x9F) && !(lead == 0xF0 && byte(i + 1) < 0x90) &&
                !(lead == 0xF4 && byte(i + 1) > 0x8F);
        if (whole && (length > 1 || (lead >= ' ' && lead != 0x7F))) {
            out += text.substr(i, length);
            i += length;
        } else {
            out += '.';
            ++i;
        }
    }
    return out;
}

bool IsUtf8(const std::string& text)
{
    // A dot stands for each byte that is none, and for each control character, which is one.
    return std::ranges::equal(text, ReadableText(text), [](char own, char shown) {
        return own == shown || static_cast<unsigned char>(own) < 0x80;
    });
}
