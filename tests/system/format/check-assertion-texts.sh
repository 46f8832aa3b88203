#!/usr/bin/env bash
# The text of an assertion is its condition's source text, so the formatter must leave the parentheses of the assertion
# macros alone. Formats a source whose conditions are spelled as no formatter would and compares them.
#
#   check-assertion-texts.sh CLANG_FORMAT STYLE_FILE
set -euo pipefail

clang_format=$1
style_file=$2

source_text=$(cat <<'SOURCE'
#define QX_ASSERT(...) Check(#__VA_ARGS__)
void Check(const char* text);

void Conditions() {
    QX_ASSERT(f(po,oid));
    QX_ASSERT(ar==rob.buffer+rob.size);
    QX_ASSERT( p  &&  !q );
    QX_ASSERT_IN("xdeque", a[i]<b[ i ]);
    QX_ASSERT_TEXT(i->second.m_ptr==nullptr, "i->second.m_ptr == __null");
    QX_ASSERT(aRatherLongConditionThatGoesOnAndOn(withManyArguments,thatTheFormatter,wouldLikeToPut,onLinesOfTheirOwn)==1);
}
SOURCE
)

formatted=$("$clang_format" --style="file:$style_file" --assume-filename=Conditions.cpp <<<"$source_text")
diff <(echo "$source_text") <(echo "$formatted") || {
    echo "the formatter changed the lines above"
    exit 1
}

# The same formatter does change such a condition in an ordinary call: the comparison can fail.
ordinary=$("$clang_format" --style="file:$style_file" --assume-filename=Conditions.cpp <<<"${source_text//QX_ASSERT/Call}")
if [ "$ordinary" = "${source_text//QX_ASSERT/Call}" ]; then
    echo "the formatter left everything alone; is $style_file in force?"
    exit 1
fi
echo "assertion texts survive the formatter"
