#pragma once
// The folding list: 209 ordered (target, replacement) pairs. Each pass
// replaces every occurrence of its target, found case-insensitively and up to
// canonical equivalence, by its replacement, working on the result of all
// earlier passes. The order is part of the behaviour: capitals stand before
// their small letters, so they catch them.
//
// The library does not read this list at run time; the per-character tables
// in FoldingTable.inc are generated from it (tools/gen_folding_table.cc), and
// the tests replay it pass by pass to check the tables.

#include <array>
#include <string_view>

namespace quarvel::folding {

struct FoldingRow {
  std::u16string_view target;
  std::u16string_view replacement;
};

inline constexpr std::array<FoldingRow, 209> kFoldingRows = {{
    {u"\u00A6", u"|"},       // 1
    {u"\u00AF", u"?"},       // 2
    {u"\u00B5", u"\u03BC"},  // 3
    {u"\u00BC", u""},        // 4
    {u"\u00BD", u""},        // 5
    {u"\u00BE", u""},        // 6
    {u"\u00C0", u"A"},       // 7
    {u"\u00C1", u"A"},       // 8
    {u"\u00C2", u"A"},       // 9
    {u"\u00C3", u"A"},       // 10
    {u"\u00C4", u"A"},       // 11
    {u"\u00C7", u"C"},       // 12
    {u"\u00C8", u"E"},       // 13
    {u"\u00C9", u"E"},       // 14
    {u"\u00CA", u"E"},       // 15
    {u"\u00CB", u"E"},       // 16
    {u"\u00CC", u"I"},       // 17
    {u"\u00CD", u"I"},       // 18
    {u"\u00CE", u"I"},       // 19
    {u"\u00CF", u"I"},       // 20
    {u"\u00D1", u"N"},       // 21
    {u"\u00D2", u"O"},       // 22
    {u"\u00D3", u"O"},       // 23
    {u"\u00D4", u"O"},       // 24
    {u"\u00D5", u"O"},       // 25
    {u"\u00D6", u"O"},       // 26
    {u"\u00D9", u"U"},       // 27
    {u"\u00DA", u"U"},       // 28
    {u"\u00DB", u"U"},       // 29
    {u"\u00DC", u"U"},       // 30
    {u"\u00DD", u"Y"},       // 31
    {u"\u00E0", u"a"},       // 32
    {u"\u00E1", u"a"},       // 33
    {u"\u00E2", u"a"},       // 34
    {u"\u00E3", u"a"},       // 35
    {u"\u00E4", u"a"},       // 36
    {u"\u00E5", u"a"},       // 37
    {u"\u00E7", u"c"},       // 38
    {u"\u00E8", u"e"},       // 39
    {u"\u00E9", u"e"},       // 40
    {u"\u00EA", u"e"},       // 41
    {u"\u00EB", u"e"},       // 42
    {u"\u00EC", u"i"},       // 43
    {u"\u00ED", u"i"},       // 44
    {u"\u00EE", u"i"},       // 45
    {u"\u00EF", u"i"},       // 46
    {u"\u00F1", u"n"},       // 47
    {u"\u00F2", u"o"},       // 48
    {u"\u00F3", u"o"},       // 49
    {u"\u00F4", u"o"},       // 50
    {u"\u00F5", u"o"},       // 51
    {u"\u00F6", u"o"},       // 52
    {u"\u00F9", u"u"},       // 53
    {u"\u00FA", u"u"},       // 54
    {u"\u00FB", u"u"},       // 55
    {u"\u00FC", u"u"},       // 56
    {u"\u00FD", u"y"},       // 57
    {u"\u00FF", u"y"},       // 58
    {u"\u01CD", u"A"},       // 59
    {u"\u0226", u"A"},       // 60
    {u"\u00C5", u"A"},       // 61
    {u"\u0100", u"A"},       // 62
    {u"\u0104", u"A"},       // 63
    {u"\u0102", u"A"},       // 64
    {u"\u01CE", u"a"},       // 65
    {u"\u0227", u"a"},       // 66
    {u"\u0101", u"a"},       // 67
    {u"\u0105", u"a"},       // 68
    {u"\u0103", u"a"},       // 69
    {u"\u0106", u"C"},       // 70
    {u"\u0108", u"C"},       // 71
    {u"\u010C", u"C"},       // 72
    {u"\u010A", u"C"},       // 73
    {u"\u0107", u"c"},       // 74
    {u"\u0109", u"c"},       // 75
    {u"\u010D", u"c"},       // 76
    {u"\u010B", u"c"},       // 77
    {u"\u010E", u"D"},       // 78
    {u"\u1E10", u"D"},       // 79
    {u"\u010F", u"d"},       // 80
    {u"\u1E11", u"d"},       // 81
    {u"\u011A", u"E"},       // 82
    {u"\u0112", u"E"},       // 83
    {u"\u0118", u"E"},       // 84
    {u"\u1EBC", u"E"},       // 85
    {u"\u0116", u"E"},       // 86
    {u"\u011B", u"e"},       // 87
    {u"\u0113", u"e"},       // 88
    {u"\u0119", u"e"},       // 89
    {u"\u0117", u"e"},       // 90
    {u"\u1EBD", u"e"},       // 91
    {u"\u011C", u"G"},       // 92
    {u"\u01F4", u"G"},       // 93
    {u"\u01E6", u"G"},       // 94
    {u"\u0122", u"G"},       // 95
    {u"\u011E", u"G"},       // 96
    {u"\u011D", u"g"},       // 97
    {u"\u01F5", u"g"},       // 98
    {u"\u01E7", u"g"},       // 99
    {u"\u0123", u"g"},       // 100
    {u"\u011F", u"g"},       // 101
    {u"\u021E", u"H"},       // 102
    {u"\u0124", u"H"},       // 103
    {u"\u021F", u"h"},       // 104
    {u"\u0125", u"h"},       // 105
    {u"\u012A", u"I"},       // 106
    {u"\u012E", u"I"},       // 107
    {u"\u01CF", u"I"},       // 108
    {u"\u0128", u"I"},       // 109
    {u"\u0130", u"I"},       // 110
    {u"\u0197", u"I"},       // 111
    {u"\u012B", u"i"},       // 112
    {u"\u012F", u"i"},       // 113
    {u"\u01D0", u"i"},       // 114
    {u"\u0129", u"i"},       // 115
    {u"\u0268", u"i"},       // 116
    {u"\u0131", u"i"},       // 117
    {u"\u0134", u"J"},       // 118
    {u"\u0135", u"j"},       // 119
    {u"\u01E8", u"K"},       // 120
    {u"\u1E30", u"K"},       // 121
    {u"\u0136", u"K"},       // 122
    {u"\u01E9", u"k"},       // 123
    {u"\u1E31", u"k"},       // 124
    {u"\u0137", u"k"},       // 125
    {u"\u0139", u"L"},       // 126
    {u"\u013B", u"L"},       // 127
    {u"\u0141", u"L"},       // 128
    {u"\u013A", u"l"},       // 129
    {u"\u013C", u"l"},       // 130
    {u"\u0142", u"l"},       // 131
    {u"\u1E3E", u"M"},       // 132
    {u"\u1E3F", u"m"},       // 133
    {u"\u0147", u"N"},       // 134
    {u"\u0143", u"N"},       // 135
    {u"\u0145", u"N"},       // 136
    {u"\u0148", u"n"},       // 137
    {u"\u0144", u"n"},       // 138
    {u"\u0146", u"n"},       // 139
    {u"\u01D1", u"O"},       // 140
    {u"\u0150", u"O"},       // 141
    {u"\u00D8", u"O"},       // 142
    {u"\u014C", u"O"},       // 143
    {u"\u01EA", u"O"},       // 144
    {u"\u01D2", u"o"},       // 145
    {u"\u0151", u"o"},       // 146
    {u"\u00F8", u"o"},       // 147
    {u"\u014D", u"o"},       // 148
    {u"\u01EB", u"o"},       // 149
    {u"\u0158", u"R"},       // 150
    {u"\u0154", u"R"},       // 151
    {u"\u0212", u"R"},       // 152
    {u"\u0159", u"r"},       // 153
    {u"\u0155", u"r"},       // 154
    {u"\u0213", u"r"},       // 155
    {u"\u015E", u"S"},       // 156
    {u"\u015A", u"S"},       // 157
    {u"\u0160", u"S"},       // 158
    {u"\u0218", u"S"},       // 159
    {u"\u015C", u"S"},       // 160
    {u"\u015F", u"s"},       // 161
    {u"\u015B", u"s"},       // 162
    {u"\u0161", u"s"},       // 163
    {u"\u0219", u"s"},       // 164
    {u"\u015D", u"s"},       // 165
    {u"\u0164", u"T"},       // 166
    {u"\u021A", u"T"},       // 167
    {u"\u0166", u"T"},       // 168
    {u"\u0165", u"t"},       // 169
    {u"\u021B", u"t"},       // 170
    {u"\u0167", u"t"},       // 171
    {u"\u016C", u"U"},       // 172
    {u"\u016A", u"U"},       // 173
    {u"\u01D3", u"U"},       // 174
    {u"\u0172", u"U"},       // 175
    {u"\u016E", u"U"},       // 176
    {u"\u0170", u"U"},       // 177
    {u"\u0168", u"U"},       // 178
    {u"\u016D", u"u"},       // 179
    {u"\u016B", u"u"},       // 180
    {u"\u01D4", u"u"},       // 181
    {u"\u0173", u"u"},       // 182
    {u"\u016F", u"u"},       // 183
    {u"\u0171", u"u"},       // 184
    {u"\u0169", u"u"},       // 185
    {u"\u1E7C", u"V"},       // 186
    {u"\u1E7D", u"v"},       // 187
    {u"\u1E82", u"W"},       // 188
    {u"\u1E83", u"w"},       // 189
    {u"\u1E8A", u"X"},       // 190
    {u"\u1E8B", u"x"},       // 191
    {u"\u0232", u"Y"},       // 192
    {u"\u1EF8", u"Y"},       // 193
    {u"\u0233", u"y"},       // 194
    {u"\u1EF9", u"y"},       // 195
    {u"\u017D", u"Z"},       // 196
    {u"\u0179", u"Z"},       // 197
    {u"\u017E", u"z"},       // 198
    {u"\u017A", u"z"},       // 199
    {u"G\u0303", u"G"},      // 200
    {u"g\u0303", u"g"},      // 201
    {u"H\u0331", u"H"},      // 202
    {u"\u1E96", u"h"},       // 203
    {u"J\u030C", u"J"},      // 204
    {u"\u01F0", u"j"},       // 205
    {u"N\u0308", u"N"},      // 206
    {u"n\u0308", u"n"},      // 207
    {u"T\u0308", u"T"},      // 208
    {u"\u1E97", u"t"},       // 209
}};

}  // namespace quarvel::folding
