function bits = mrkit_text(str)
  % BITS = MRKIT_TEXT(STR) renders STR in a 5x7 pixel font as a logical 7-row bitmap, one blank
  % column between characters. Letters are shown in upper case; characters the font lacks
  % show as blanks. Used to caption demo pictures without a graphics toolkit.
  persistent glyphs
  if isempty(glyphs)
    glyphs = containers.Map("KeyType", "char", "ValueType", "any");
    table = {"A", [14 17 17 31 17 17 17]; "B", [30 17 17 30 17 17 30]; "C", [14 17 16 16 16 17 14];
            "D", [30 17 17 17 17 17 30]; "E", [31 16 16 30 16 16 31]; "F", [31 16 16 30 16 16 16];
            "G", [14 17 16 23 17 17 15]; "H", [17 17 17 31 17 17 17]; "I", [14 4 4 4 4 4 14];
            "J", [7 2 2 2 2 18 12];      "K", [17 18 20 24 20 18 17]; "L", [16 16 16 16 16 16 31];
            "M", [17 27 21 21 17 17 17]; "N", [17 17 25 21 19 17 17]; "O", [14 17 17 17 17 17 14];
            "P", [30 17 17 30 16 16 16]; "Q", [14 17 17 17 21 18 13]; "R", [30 17 17 30 20 18 17];
            "S", [15 16 16 14 1 1 30];   "T", [31 4 4 4 4 4 4];       "U", [17 17 17 17 17 17 14];
            "V", [17 17 17 17 17 10 4];  "W", [17 17 17 21 21 21 10]; "X", [17 17 10 4 10 17 17];
            "Y", [17 17 10 4 4 4 4];     "Z", [31 1 2 4 8 16 31];     "0", [14 17 19 21 25 17 14];
            "1", [4 12 4 4 4 4 14];      "2", [14 17 1 2 4 8 31];     "3", [31 2 4 2 1 17 14];
            "4", [2 6 10 18 31 2 2];     "5", [31 16 30 1 1 17 14];   "6", [6 8 16 30 17 17 14];
            "7", [31 1 2 4 8 8 8];       "8", [14 17 17 14 17 17 14]; "9", [14 17 17 15 1 2 12];
            ".", [0 0 0 0 0 12 12];      "=", [0 0 31 0 31 0 0];      "-", [0 0 0 31 0 0 0];
            "%", [24 25 2 4 8 19 3];     "(", [2 4 8 8 8 4 2];        ")", [8 4 2 2 2 4 8];
            ":", [0 12 12 0 12 12 0];    "/", [0 1 2 4 8 16 0];       ",", [0 0 0 0 12 4 8];
            "+", [0 4 4 31 4 4 0]};
    for k = 1:rows(table)
      glyphs(table{k, 1}) = logical(mod(floor(table{k, 2}(:) ./ [16 8 4 2 1]), 2));
    end
  end
  str = upper(str);
  bits = false(7, 6 * numel(str));
  for k = 1:numel(str)
    if isKey(glyphs, str(k))
      bits(:, 6 * (k - 1) + (1:5)) = glyphs(str(k));
    end
  end
end
